#include "capture_stage.h"

#include <IFileCache.h>
#include <ThermalInfo.h>

#include <utility>

CaptureStage::CaptureStage(std::string dumpDir)
    : mDumpDir(std::move(dumpDir)), mCtrl(Utils::Cam3CPUCtrl::createInstance()) {}

CaptureStage::~CaptureStage() {
    stop();
    mCtrl->destroyInstance();
}

bool CaptureStage::start() {
    if (mRunning) return true;
    mCtrl->init();
    mRunning = true;
    const bool perfMode = mCtrl->cpuPerformanceMode(0);
    return mCtrl->enterCameraPerf() && perfMode;
}

bool CaptureStage::dump(const std::string& name, const std::string& frame) {
    android::sp<NSCam::IFileCache> cache = NSCam::IFileCache::open((mDumpDir + "/" + name).c_str());
    return cache != nullptr && cache->write(frame.data(), static_cast<unsigned int>(frame.size())) >= 0;
}

int CaptureStage::temperature() const {
    return NSCam::NSThermalInfo::getSystemThermalValue();
}

void CaptureStage::stop() {
    if (!mRunning) return;
    mCtrl->exitCameraPerf();
    mCtrl->uninit();
    mRunning = false;
}
