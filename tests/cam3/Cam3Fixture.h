// Shared pieces of the camera controller tests: a fresh simulated power
// service and perf-lock simulator per test, and an owner for controllers.
#pragma once

#include <Cam3CPUCtrlImp.h>
#include <Capture.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/properties.h>

#include <string>
#include <vector>

namespace cam3test {

using ::android::sp;
using qrnhost::power::SimPowerService;
using qrntest::Capture;
using qrntest::Sink;
using Strings = std::vector<std::string>;

inline const std::string kTag = "Cam3CPUCtrl_util";

// Gives the controller back when the test ends, unless the test did.
struct Owned {
    Utils::Cam3CPUCtrl* p = Utils::Cam3CPUCtrl::createInstance();
    ~Owned() {
        if (p) p->destroyInstance();
    }
    Utils::Cam3CPUCtrl* operator->() const { return p; }
    Utils::Cam3CPUCtrlImp* imp() const { return static_cast<Utils::Cam3CPUCtrlImp*>(p); }  // for disable()
    void destroy() {
        p->destroyInstance();
        p = nullptr;
    }
};

// Death recipients linked to the "default" power service now.
inline size_t linkedRecipients() {
    auto c = qrnhost::hidl::lookup(vendor::quarnel::hardware::power::V2_0::IPower::descriptor, "default");
    return c == nullptr ? 0 : c->linkedRecipients();
}

inline Strings journalText(const sp<SimPowerService>& sim) {
    Strings out;
    for (const auto& c : sim->journal()) out.push_back(c.toString());
    return out;
}

class Cam3Test : public ::testing::Test {
  protected:
    void SetUp() override {
        qrnhost::properties::reset();
        qrnhost::perf::reset();
        sim = qrnhost::power::startDefaultService();
    }
    void TearDown() override {
        qrnhost::hidl::unregisterAll();
        qrnhost::perf::reset();
        qrnhost::properties::reset();
    }
    sp<SimPowerService> sim;
};

}  // namespace cam3test
