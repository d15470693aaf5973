#include <qrncam/utils/JobQueueStatic.h>

#include <qrncam/utils/TestLog.h>
#include <atomic>
#include <mutex>
#include <system_error>

namespace {
std::atomic<qrncam::stdutils::TestLogHook> gHook{nullptr};
}

extern "C" int qrncam_testLog(const char* tag, int level) {
    qrncam::stdutils::TestLogHook hook = gHook.load(std::memory_order_acquire);
    if (hook) return hook(tag, level);
    return 1;
}

namespace qrncam::stdutils {
void setTestLogHook(TestLogHook hook) {
    gHook.store(hook, std::memory_order_release);
}
}  // namespace qrncam::stdutils

namespace NSCam {

bool JobQueueStatic::lock(std::unique_lock<std::mutex>& l) {
    try {
        l.lock();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

}  // namespace NSCam
