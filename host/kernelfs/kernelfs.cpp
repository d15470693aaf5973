#include <qrnhost/kernelfs.h>
#include <qrnhost/locking.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>

namespace qrnhost::kernelfs {
namespace {

std::mutex gLock;
std::map<std::string, std::string>& redirections() QRNHOST_REQUIRES(gLock) {
    static auto* m = new std::map<std::string, std::string>;  // never destroyed: lookups may run at exit
    return *m;
}
// Lets the common case (nothing redirected) skip the lock.
std::atomic<bool> gAnyRedirect{false};

}  // namespace

std::string resolve(const char* fixedPath) {
    if (gAnyRedirect.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lk(gLock);
        auto it = redirections().find(fixedPath);
        if (it != redirections().end()) return it->second;
    }
    const char* root = getenv(kRootEnv);  // NOLINT(concurrency-mt-unsafe): set by host programs before threads start
    if (root != nullptr && root[0] != '\0') return std::string(root) + fixedPath;
    return fixedPath;
}

void redirect(const std::string& fixedPath, const std::string& replacement) {
    std::lock_guard<std::mutex> lk(gLock);
    redirections()[fixedPath] = replacement;
    gAnyRedirect.store(true, std::memory_order_release);
}

void clear(const std::string& fixedPath) {
    std::lock_guard<std::mutex> lk(gLock);
    redirections().erase(fixedPath);
    gAnyRedirect.store(!redirections().empty(), std::memory_order_release);
}

void reset() {
    std::lock_guard<std::mutex> lk(gLock);
    redirections().clear();
    gAnyRedirect.store(false, std::memory_order_release);
}

}  // namespace qrnhost::kernelfs
