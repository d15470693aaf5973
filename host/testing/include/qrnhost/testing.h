// The host platform as a test harness for camera code.
//
// Include this one header in a test of code that uses the camera system
// utilities (libqrncam_sysutils) and link the harness (CMake:
// qrncam_sysutils::testing_main, or qrncam_sysutils::testing with a main of
// your own, from find_package(qrncam_sysutils); pkg-config:
// qrncam_sysutils-testing). The code under test runs unchanged: it binds the
// vendor power service with IPower::getService(), links to its death, and
// opens the perf-lock library by name, as on a device. The test decides what
// those services do.
//
//   #include <Cam3CPUCtrl.h>
//   #include <gtest/gtest.h>
//   #include <qrnhost/testing.h>
//   namespace qt = qrnhost::testing;  // as in every example here
//
//   TEST(CaptureStage, CarriesOnWhenThePowerServiceDies) {
//       auto sim = qt::startPowerService();  // a simulated "default" service
//       Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
//       ctrl->init();
//       EXPECT_TRUE(ctrl->cpuPerformanceMode(0));
//       EXPECT_EQ(1u, sim->active().size());
//       ASSERT_TRUE(qt::kill(qt::powerService()));  // it dies: death notices queued
//       ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
//       EXPECT_FALSE(ctrl->cpuPerformanceMode(0));  // heard of it: no service to ask
//       qrnhost::perf::refuseNext();                // the next perf lock is refused
//       EXPECT_FALSE(ctrl->enterCPUBoost(100));
//       ctrl->uninit();
//       ctrl->destroyInstance();
//       EXPECT_EQ("", qrnhost::perf::report());  // no perf lock left held
//   }
//
// With testing_main every test starts on a freshly reset platform, and a
// test fails, naming each item, when it leaves something held: a scenario
// registered on a power service, a perf lock, a death recipient linked, a
// dump not written, a property it set (see leftovers() below). A failed test
// also shows what was logged and the calls the services saw.
//
// The device's rules hold throughout; code that passes here is not spared
// them:
//  - A Return<T> holding a failed status must have isOk() (or
//    isDeadObject()) asked before it is dropped, and its value must not be
//    read: either ends the process, as on a device. A call that returns a
//    value (querySystemInfo, registerScenario) on a service that has died,
//    before its death notice arrived, therefore ends the process of code
//    that asserts the result. Wait for the notices before driving such code
//    on, or prove that it ends the process with runInChild() below.
//  - Death notices arrive on a runtime thread of their own, one after the
//    other, never on the thread that killed the service.
//  - linkToDeath() holds the recipient weakly: a recipient that is gone when
//    the service dies is skipped.
// Each library header says, call by call, what the library does when the
// power service is absent, dead or failing in transport.
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
//    or loads a file of "key=value" lines. The names the library reads are
//    in prop:: below.
//  - Kernel nodes ("/proc/meminfo", the thermal nodes): KernelNodes below,
//    with the paths in node::, or qrnhost::kernelfs (kernelfs.h) and the
//    QRNCAM_KERNEL_ROOT variable.
//  - Dumps: waitForDumps() below; qrnhost::filecache (filecache.h) follows
//    every step of the file cache and its budget.
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
#include <qrnhost/filecache.h>
#include <qrnhost/hidl.h>
#include <qrnhost/kernelfs.h>
#include <qrnhost/properties.h>
#include <qrnhost/transcript.h>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qrnhost::testing {

using ::android::sp;
using ::android::hardware::Status;
using qrnhost::hidl::Times;  // Times::Next (one call) or Times::Every

// The kernel nodes the library reads and writes, as a device names them.
namespace node {
// NSMemoryInfo's functions read it ("MemTotal:", "MemFree:", "Buffers:",
// "Cached:" lines, in kB).
inline constexpr const char* kMemInfo = "/proc/meminfo";
// NSThermalInfo::getSystemThermalValue() reads its first number.
inline constexpr const char* kApTemperature = "/proc/qrntz/qrntsAP";
// NSThermalInfo::setThermalMode() writes "0" or "1" into it.
inline constexpr const char* kThermalMode = "/proc/driver/cl_apu_status";
}  // namespace node

// The system properties the library reads, each when it is used.
namespace prop {
// bool, default true: enterCameraPerf() takes the camera perf lock.
inline constexpr const char* kCameraPerf = "vendor.cam3dev.idleprefer.enable";
// bool, default false: Cam3CPUCtrl::enablePreferIdle() may ask the service.
inline constexpr const char* kCameraPreferIdle = "vendor.cam3dev.cpupreferidle";
// int32, default 0: non-zero turns on the file cache's INFO and DEBUG lines.
inline constexpr const char* kFileCacheLog = "vendor.debug.file_cache.log";
// int64, default 1073741824: the file caches' memory budget in bytes, for
// the whole process, read by every IFileCache::open(). Negative: no limit.
inline constexpr const char* kFileCacheBudget = "vendor.debug.file_cache.storage_size";
// Trace tags as atrace reads them; 0x400 is the camera tag (Capture sets it).
inline constexpr const char* kTraceTags = "debug.atrace.tags.enableflags";
}  // namespace prop

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
// other services' notices queued later. When the deadline passes first it
// reports which notices it waited for (see setFailureReporter) and returns
// false.
bool waitForDeathNotices(const Service& service, std::chrono::milliseconds timeout = kDefaultWait);

// Blocks until the flush of every file cache dropped so far is over, so that
// their files are complete: no polling, no sleeping.
//   #include <IFileCache.h>
//   qt::TempDir dir;
//   android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(dir.file("frame.raw").c_str());
//   fc->write("raw", 3);
//   fc.clear();                       // the flush is queued
//   ASSERT_TRUE(qt::waitForDumps());  // and over
//   EXPECT_EQ("raw", qt::readFile(dir.file("frame.raw")));
// When the deadline passes first it reports the files not written yet and
// returns false. A cache still open is not waited for: its file is written
// only once its last reference goes.
bool waitForDumps(std::chrono::milliseconds timeout = kDefaultWait);

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

// Files standing in for the kernel nodes the library reads and writes (the
// paths of node::), in a temporary directory of their own. Nodes not set
// stay the real ones. Removes its files and redirections when destroyed.
//   #include <ThermalInfo.h>
//   qt::KernelNodes nodes;
//   nodes.set(qt::node::kApTemperature, "452\n");
//   EXPECT_EQ(452, NSCam::NSThermalInfo::getSystemThermalValue());
class KernelNodes {
  public:
    KernelNodes();
    ~KernelNodes();
    KernelNodes(const KernelNodes&) = delete;
    KernelNodes& operator=(const KernelNodes&) = delete;

    // Makes fixedPath read contents. A path that is not one of node::
    // (which the library would never open) is refused: reported, naming the
    // paths the library uses, and false.
    bool set(const std::string& fixedPath, const std::string& contents);
    // Makes fixedPath a node that cannot be opened, for reading or writing.
    // Refuses a path as set() does.
    bool remove(const std::string& fixedPath);
    // The file standing for fixedPath as it is now, or "" when there is
    // none. For a node the library writes, set() it (to "") first.
    std::string contents(const std::string& fixedPath) const;
    const std::string& root() const { return mDir.path(); }

  private:
    TempDir mDir;
    std::vector<std::string> mRedirected;
};

// Runs scenario in a child process (a fork of this one, with only the
// calling thread) and reports how the child ended, so that a test can prove
// that a call ends the process, as it does on a device, without ending the
// test program. The child's standard output and error, log lines included,
// come back in output; the child ends when the scenario returns, or earlier
// by its own doing. Assertions inside the scenario do not fail the test:
// check what came back. Under ThreadSanitizer or qemu-user a child may
// start no thread (the HIDL runtime's, to deliver death notices, say): it
// dies. Kill a service and hold its notice in the test before the child is
// made instead (Capture::holdAt on "[serviceDied] ...").
//   #include <Cam3CPUCtrl.h>
//   const qt::ChildEnd end = qt::runInChild([] {
//       auto sim = qt::startPowerService();
//       sim->injectTransportFailure(qrnhost::power::Op::RegisterScenario);
//       Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
//       ctrl->init();
//       ctrl->cpuPerformanceMode(0);  // registerScenario fails: the process ends
//   });
//   EXPECT_TRUE(end.aborted()) << end.describe();
//   EXPECT_NE(std::string::npos, end.output.find("Attempted to retrieve value from failed HIDL call"));
struct ChildEnd {
    bool exited = false;    // returned from the scenario (status 0) or called exit()
    int exitStatus = 0;     // when exited
    int signal = 0;         // the signal that ended it (SIGABRT for an abort), or 0
    bool timedOut = false;  // still running at the deadline, then killed
    std::string output;     // its standard output and error
    bool aborted() const;
    // "exited with status 0", "ended by signal 6 (Aborted)", "still running
    // after 30000 ms (killed)", with the output's last lines.
    std::string describe() const;
};
ChildEnd runInChild(const std::function<void()>& scenario,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));

// What a test leaves behind. testing_main fails each test that leaves any
// item not declared with leaveOnPurpose().
enum class Left {
    Scenario,        // registered on a power service still registered
    PerfLock,        // held, not released and not run out
    DeathRecipient,  // linked to a service still registered
    Dump,            // a file cache still open, or its flush not over
    Property,        // set to a value other than it had when the test began
};
const char* leftName(Left kind);  // "scenario", "perf lock", ...

struct Leftover {
    Left kind;
    std::string what;  // names the item: "lock 2 {0x00414000, 0x00000001} for 500 ms (CPU boost: enterCPUBoost)"
};

// Notes the properties as they are now: leftovers() names those that differ
// later. Also forgets what earlier reset() calls found. testing_main calls
// it as each test begins.
void markClean();

// Everything held now, and everything that reset() found held and took away
// since markClean() (a test that resets the platform before its code has
// let go hides nothing), less what the test declared. Kept in the order
// above; nothing is waited for (see waitForDumps()).
std::vector<Leftover> leftovers();

// The test means to leave items of that kind (only those whose text
// contains `containing`, when given) until markClean().
//   qt::leaveOnPurpose(qt::Left::PerfLock, "enterNoTempa");
void leaveOnPurpose(Left kind, const std::string& containing = std::string());

// What a failed test needs to be understood, as text: the newest records of
// capture (when given, at most `limit`), then the newest calls of every
// registered power simulator and of the perf-lock library (at most `limit`
// each), those that reset() wiped since markClean() included.
std::string whatHappened(const Capture* capture, size_t limit = 100);

// Back to a clean platform, for a test's TearDown: every service is killed
// and its notices delivered, linkToDeath faults are forgotten, flushes
// queued so far are waited for, the perf-lock library forgets its locks,
// journal and refusals, every property is removed, and kernel-node
// redirections are dropped. What was still held first is kept for
// leftovers(). Waits that pass their deadline are reported.
void reset();

}  // namespace qrnhost::testing
