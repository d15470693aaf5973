// What this library sends to the vendor power service,
// vendor.quarnel.hardware.power@2.0::IPower: the command codes of
// configScenario, the query codes of querySystemInfo, the cluster indices
// and the longest enableScenario timeout. The service's generated client
// header declares the interface but none of these values, so the library
// declares them itself, for device and host builds alike.
#pragma once

#include <stdint.h>

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

}  // namespace V2_0
}  // namespace power
}  // namespace hardware
}  // namespace quarnel
}  // namespace vendor
