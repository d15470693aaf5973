// Client-side declaration of the vendor power service,
// vendor.quarnel.hardware.power@2.0::IPower: the operations that the camera
// system utilities call, with their command and query codes.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <utils/StrongPointer.h>

#include <string>

namespace vendor {
namespace quarnel {
namespace hardware {
namespace power {
namespace V2_0 {

// Commands of configScenario (p1, p2 as listed; unused parameters are 0).
enum : int32_t {
    CMD_SET_CPU_CORE_BIG_LITTLE_MIN = 1,  // cluster, minimum cores
    CMD_SET_CPU_CORE_BIG_LITTLE_MAX = 2,  // cluster, maximum cores
    CMD_SET_CPU_FREQ_BIG_LITTLE_MIN = 3,  // cluster, minimum frequency
    CMD_SET_CPU_FREQ_BIG_LITTLE_MAX = 4,  // cluster, maximum frequency
    CMD_SET_CPU_PERF_MODE = 5,            // 1, 0
    CMD_SET_PREFER_IDLE = 65,             // 1, 0
    CMD_SET_CAM_PREFER_IDLE = 73,         // 1, 0
    CMD_SET_PREFER_IDLE_PARAM = 79,       // 100, 0
};

// Queries of querySystemInfo.
enum : int32_t {
    SYSINFO_CLUSTER_NUM = 1,       // param 0: number of clusters
    SYSINFO_CLUSTER_FREQ_MAX = 4,  // param cluster: its top frequency
};

// Cluster indices where the two clusters are addressed by name.
enum : int32_t {
    CLUSTER_LITTLE = 0,
    CLUSTER_BIG = 1,
};

// Longest timeout of enableScenario, in milliseconds.
constexpr int32_t SCENARIO_TIMEOUT_MAX = 0x0FFFFFFF;

struct IPower : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    virtual ::android::hardware::Return<int32_t> querySystemInfo(int32_t cmd, int32_t param) = 0;
    virtual ::android::hardware::Return<int32_t> registerScenario() = 0;
    virtual ::android::hardware::Return<void> configScenario(int32_t handle, int32_t cmd, int32_t p1, int32_t p2,
                                                             int32_t p3, int32_t p4) = 0;
    virtual ::android::hardware::Return<void> unregisterScenario(int32_t handle) = 0;
    virtual ::android::hardware::Return<void> enableScenario(int32_t handle, int32_t timeout) = 0;
    virtual ::android::hardware::Return<void> disableScenario(int32_t handle) = 0;

    // The registered service "serviceName", or null. getStub asks for the
    // in-process implementation rather than a proxy.
    static ::android::sp<IPower> getService(const std::string& serviceName = "default", bool getStub = false);
    static ::android::sp<IPower> getService(const char* serviceName, bool getStub = false) {
        return getService(std::string(serviceName), getStub);
    }
    ::android::status_t registerAsService(const std::string& serviceName = "default");
};

}  // namespace V2_0
}  // namespace power
}  // namespace hardware
}  // namespace quarnel
}  // namespace vendor
