// The host platform as a test harness for camera code.
//
// Include this one header in a test of code that uses the camera system
// utilities (libqrncam_sysutils) and link the harness (CMake:
// qrncam_sysutils::testing from find_package(qrncam_sysutils), or
// qrnhost_testing inside this tree). The code under test runs unchanged: it
// binds the vendor power service with IPower::getService(), links to its
// death, and opens the perf-lock library by name, as on a device. The test
// decides what those services do.
//
//   #include <qrnhost/testing.h>
//   namespace qt = qrnhost::testing;
//
//   auto sim = qt::startPowerService();     // a simulated "default" service
//   ... run the camera code ...
//   qt::kill(qt::powerService());           // it dies: death notices queued
//   ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
//   ... the code has heard of it; check how it carries on ...
//   qrnhost::perf::refuseNext();            // the next perf lock is refused
//   EXPECT_EQ("", qrnhost::perf::report()); // no perf lock left held
//   EXPECT_TRUE(sim->registered().empty()) << sim->report();
//   qt::reset();                            // in TearDown
//
// The device's rules hold throughout; code that passes here is not spared
// them:
//  - A Return<T> holding a failed status must have isOk() (or
//    isDeadObject()) asked before it is dropped, and its value must not be
//    read: either ends the process, as on a device. A call that returns a
//    value on a service that has died, before its death notice arrived,
//    therefore ends the process of code that asserts the result. Wait for
//    the notices before driving such code on.
//  - Death notices arrive on a runtime thread of their own, one after the
//    other, never on the thread that killed the service.
//  - linkToDeath() holds the recipient weakly: a recipient that is gone when
//    the service dies is skipped.
//
// What else the host platform offers, all reachable through this header:
//  - qrnhost::power::SimPowerService (PowerSim.h): the simulated power
//    service's journal of calls (journal(), calls(op)), the scenarios it
//    holds (registered(), active(), report()), and transport failures on
//    demand (injectTransportFailure(op, [status,] count)).
//  - qrnhost::perf (PerfSim.h): the perf-lock library's journal, the locks
//    held (held(), report()), refusals (refuseNext(n), setRefuseAll(on)).
//  - Properties: property_set() and property_get*() of <cutils/properties.h>,
//    with libcutils' parsing; qrnhost::properties (properties.h) clears them
//    or loads a file of "key=value" lines.
//  - Kernel nodes ("/proc/meminfo", the thermal nodes): KernelNodes below,
//    or qrnhost::kernelfs (kernelfs.h) and the QRNCAM_KERNEL_ROOT variable.
//  - qrnhost::hidl (hidl.h): the HIDL runtime underneath, for services other
//    than the power service.
//  - Capture (capture.h): every log line of both sinks and every trace
//    section the code writes, in order; TempDir, readFile, writeFile.
//  - Transcript (transcript.h): a scenario's log lines, trace sections,
//    service and perf-lock calls and files as text, compared with a
//    transcript file that a person wrote and reviewed.
//  - AllocFault (allocfault.h, a library of its own): the nth allocation of
//    a thread fails.
#pragma once

#include <cutils/properties.h>
#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/kernelfs.h>
#include <qrnhost/properties.h>
#include <qrnhost/transcript.h>
#include <chrono>
#include <string>
#include <vector>

namespace qrnhost::testing {

using ::android::sp;
using ::android::hardware::Status;
using qrnhost::hidl::Times;  // Times::Next (one call) or Times::Every

// A HIDL service, by interface descriptor and instance name.
struct Service {
    std::string descriptor;
    std::string instance;
};

// The vendor power service that the camera controllers bind ("default").
Service powerService();

// Starts a simulated power service and registers it as "default", replacing
// (and killing) one registered before. Keep the pointer to read its journal.
sp<power::SimPowerService> startPowerService(const power::Config& config = power::Config());

// The service dies: getService() stops returning it, calls through proxies
// already handed out fail in transport with DEAD_OBJECT, and every recipient
// linked to it is told once, on the runtime thread. False if it is not
// registered.
bool kill(const Service& service);

// The registration is withdrawn quietly: getService() stops returning the
// service, but proxies already handed out keep reaching it and no recipient
// is told. False if it is not registered.
bool withdraw(const Service& service);

// Blocks until every death notice of the service queued so far has been
// delivered (serviceDied() has returned), however busy the runtime is with
// other services' notices queued later. False on timeout.
bool waitForDeathNotices(const Service& service, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Death recipients linked to the service now, 0 when it is not registered:
// code that has let go of the service should leave none behind.
size_t linkedRecipients(const Service& service);

// The next (or every) linkToDeath() on the service returns false, or fails
// in transport with status. The fault is kept by name, so it also applies to
// a service started later under it, until cleared or reset().
void makeLinkToDeathReturnFalse(const Service& service, Times times = Times::Next);
void makeLinkToDeathFail(const Service& service, const Status& status, Times times = Times::Next);
void clearLinkToDeathFaults(const Service& service);

// Transport failures as the device reports them, for
// SimPowerService::injectTransportFailure and makeLinkToDeathFail. With a
// message, description() reads
// "Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: <message>'".
Status transportFailure(const std::string& message);
Status deadObject();  // "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '"

// Files standing in for the kernel nodes the library reads and writes, in a
// temporary directory of their own. Nodes not set stay the real ones.
// Removes its files and redirections when destroyed.
class KernelNodes {
  public:
    KernelNodes();
    ~KernelNodes();
    KernelNodes(const KernelNodes&) = delete;
    KernelNodes& operator=(const KernelNodes&) = delete;

    // Makes fixedPath (e.g. "/proc/meminfo") read contents.
    void set(const std::string& fixedPath, const std::string& contents);
    // Makes fixedPath a node that cannot be opened, for reading or writing.
    void remove(const std::string& fixedPath);
    // The file standing for fixedPath as it is now, or "" when there is
    // none. For a node the library writes, set() it (to "") first.
    std::string contents(const std::string& fixedPath) const;
    const std::string& root() const { return mDir.path(); }

  private:
    TempDir mDir;
    std::vector<std::string> mRedirected;
};

// Back to a clean platform, for a test's TearDown: every service is killed
// and its notices delivered, linkToDeath faults are forgotten, the perf-lock
// library forgets its locks, journal and refusals, every property is
// removed, and kernel-node redirections are dropped.
void reset();

}  // namespace qrnhost::testing
