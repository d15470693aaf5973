// A short host session: the logging facade and the simulated vendor power
// service at work, with the service's journal and report printed at the end.
#include <cutils/properties.h>
#include <stdio.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/properties.h>

#define LOG_TAG "QrnCam/CpuCtrl"
#define QRN_LOG_MODULE ::qrncam::log::kModuleCpuCtrl
#include <SysLog.h>

using namespace vendor::quarnel::hardware::power::V2_0;

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!qrnhost::properties::setFromAssignment(argv[i])) {
            fprintf(stderr, "usage: %s [key=value ...]\n  sets system properties before the session\n", argv[0]);
            return 2;
        }
    }
    using ULogger = NSCam::Utils::ULog::ULogger;
    ULogger::sMode = static_cast<uint32_t>(property_get_int32("vendor.debug.camera.ulog.mode", 3));
    ULogger::sDetailsLevel = static_cast<uint32_t>(property_get_int32("vendor.debug.camera.ulog.level", 5));
    ULogger::sNormalDetailsMask = static_cast<uint32_t>(property_get_int32("vendor.debug.camera.ulog.mask", 0x40007000));

    android::sp<qrnhost::power::SimPowerService> sim = qrnhost::power::startDefaultService();
    android::sp<IPower> power = IPower::getService("default", false);
    if (power == nullptr) {
        QRN_LOGE("[%s] no vendor power service", __FUNCTION__);
        return 1;
    }
    {
        QRN_FUNCTION_SCOPE("CpuCtrl::enableBoost");
        int32_t clusters = power->querySystemInfo(SYSINFO_CLUSTER_NUM, 0);
        int32_t handle = power->registerScenario();
        QRN_LOGD("[%s] mPowerHalHandle:(%d)", __FUNCTION__, handle);
        for (int32_t i = 0; i < clusters; ++i) {
            int32_t f = power->querySystemInfo(SYSINFO_CLUSTER_FREQ_MAX, i);
            (void)power->configScenario(handle, CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, i, f, 0, 0).isOk();
            (void)power->configScenario(handle, CMD_SET_CPU_FREQ_BIG_LITTLE_MAX, i, f, 0, 0).isOk();
            QRN_LOGD("[%s] modify CPU frequency: %d", __FUNCTION__, f);
        }
        (void)power->enableScenario(handle, 2000).isOk();
        QRN_LOGW("[%s] leaving scenario %d registered on purpose", __FUNCTION__, handle);
    }
    printf("\n== power service calls ==\n");
    for (const auto& c : sim->journal()) printf("%3llu  %s\n", static_cast<unsigned long long>(c.seq), c.toString().c_str());
    printf("\n== scenarios left on the service ==\n%s", sim->report().c_str());
    qrnhost::hidl::unregisterAll();
    return 0;
}
