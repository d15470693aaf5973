#include "CaptureBoost.h"

CaptureBoost::CaptureBoost() : mCtrl(Utils::Cam3CPUCtrl::createInstance()) {}

CaptureBoost::~CaptureBoost() {
    stop();
    mCtrl->destroyInstance();
}

void CaptureBoost::start() {
    if (mRunning) return;
    mCtrl->init();
    mRunning = true;
    mPerfLocked = mCtrl->enterCameraPerf();
    mPerfMode = mCtrl->cpuPerformanceMode(0);  // for the whole session
}

bool CaptureBoost::burst(int durationMs) {
    if (!mRunning) return false;
    // The power service may have restarted since, and a refused lock may be
    // granted now: ask again. A new request replaces the previous one.
    if (!mPerfLocked) mPerfLocked = mCtrl->enterCameraPerf();
    mPerfMode = mCtrl->cpuPerformanceMode(0);
    // A boost runs out by itself; give back the last one before asking anew.
    mCtrl->exitCPUBoost();
    return mCtrl->enterCPUBoost(durationMs);
}

void CaptureBoost::stop() {
    if (!mRunning) return;
    mCtrl->exitCPUBoost();
    mCtrl->exitCameraPerf();
    mCtrl->uninit();  // the last user: the performance mode is withdrawn
    mRunning = mPerfLocked = mPerfMode = false;
}
