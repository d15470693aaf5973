// Camera components built against these interfaces call through their
// virtual tables, so every interface keeps its operations in its slots: a
// member pointer to a virtual holds its byte offset in the table (odd-marked
// on some targets). Slots 0 and 1 are the two forms of the destructor.
#include <Cam3CPUCtrlImp.h>
#include <CpuCtrl.h>
#include <IFileCache.h>
#include <SensorListener.h>
#include <gtest/gtest.h>
#include <string.h>

namespace {

template <typename F>
ptrdiff_t slot(F f) {
    ptrdiff_t w[2];
    static_assert(sizeof f == sizeof w, "a member function pointer is two words");
    memcpy(w, &f, sizeof w);
    return (w[0] & ~1) / static_cast<ptrdiff_t>(sizeof(void*));
}

TEST(Abi, EveryInterfaceKeepsItsSlots) {
    using Info = CpuCtrl::CPU_CTRL_INFO;
    using Range = CpuCtrl::CPU_CTRL_RANGE_INFO;
    EXPECT_EQ(
        (std::vector<ptrdiff_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}),
        (std::vector<ptrdiff_t>{slot(&CpuCtrl::destroyInstance), slot(&CpuCtrl::init), slot(&CpuCtrl::uninit),
                                slot(static_cast<bool (CpuCtrl::*)(Info&)>(&CpuCtrl::enable)),
                                slot(static_cast<bool (CpuCtrl::*)(Range&)>(&CpuCtrl::enable)),
                                slot(&CpuCtrl::enableBoost), slot(&CpuCtrl::enablePreferIdle), slot(&CpuCtrl::disable),
                                slot(&CpuCtrl::cpuPerformanceMode), slot(&CpuCtrl::resetTimeout)}))
        << "CpuCtrl";
    using Utils::Cam3CPUCtrl;
    using Utils::Cam3CPUCtrlImp;
    EXPECT_EQ(
        (std::vector<ptrdiff_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}),
        (std::vector<ptrdiff_t>{
            slot(&Cam3CPUCtrl::destroyInstance), slot(&Cam3CPUCtrl::init), slot(&Cam3CPUCtrl::uninit),
            slot(&Cam3CPUCtrl::enterCPUBoost), slot(&Cam3CPUCtrl::exitCPUBoost), slot(&Cam3CPUCtrl::enablePreferIdle),
            slot(&Cam3CPUCtrl::cpuPerformanceMode), slot(&Cam3CPUCtrl::enterCameraPerf),
            slot(&Cam3CPUCtrl::exitCameraPerf), slot(&Cam3CPUCtrl::enterNoTempa), slot(&Cam3CPUCtrl::exitNoTempa),
            slot(&Cam3CPUCtrlImp::disable), slot(&Cam3CPUCtrlImp::serviceDied)}))
        << "Cam3CPUCtrl, then what Cam3CPUCtrlImp adds";
    EXPECT_EQ((std::vector<ptrdiff_t>{2, 2, 3}),
              (std::vector<ptrdiff_t>{slot(&NSCam::IFileCache::write), slot(&FileCache::write),
                                      slot(&FileCache::onFirstRef)}))
        << "IFileCache, FileCache";
    EXPECT_EQ((std::vector<ptrdiff_t>{2, 3, 4, 5, 6, 7, 8, 9}),
              (std::vector<ptrdiff_t>{slot(&SensorListener::destroyInstance), slot(&SensorListener::setListener),
                                      slot(&SensorListener::enableSensor), slot(&SensorListener::disableSensor),
                                      slot(&SensorListener::init), slot(&SensorListener::uninit),
                                      slot(&SensorListener::getEvents), slot(&SensorListener::isSupport)}))
        << "SensorListener";
}

}  // namespace
