// Thermal information for camera components: the application-processor
// temperature published by the thermal driver, and the thermal mode of the
// processing-unit cooler. Each call opens its kernel node afresh; failures
// are negative results (and an ERROR line under the tag "ThermalInfo"). On
// the host, qrnhost::testing::KernelNodes puts files behind the nodes.
#pragma once

namespace NSCam {
namespace NSThermalInfo {

// The first whitespace-delimited token of the temperature node
// "/proc/qrntz/qrntsAP", converted with std::stoi and returned in the
// node's own unit; -2 when the node cannot be opened. A node that holds no
// number, or one outside the int range, lets std::stoi's
// std::invalid_argument or std::out_of_range reach the caller.
int getSystemThermalValue();

// Writes mode (0 or 1) to the cooler's status node
// "/proc/driver/cl_apu_status": 0 on success, -2 when the node cannot be
// opened, -22 for any other mode. The node is opened
// (and so truncated) before the mode is checked.
int setThermalMode(int mode);

}  // namespace NSThermalInfo
}  // namespace NSCam
