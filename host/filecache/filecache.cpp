#include <qrnhost/filecache.h>
#include <qrnhost/locking.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace qrnhost::filecache {
namespace {

struct State {
    std::mutex lock;
    std::condition_variable over;
    std::vector<std::pair<int, Observer>> observers QRNHOST_GUARDED_BY(lock);
    int nextId QRNHOST_GUARDED_BY(lock) = 1;
    std::atomic<size_t> observerCount{0};  // lets a note skip the lock when nobody listens
    std::atomic<uint64_t> queued{0};
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> charged{0};

    // A flush is over: counted, and its waiters woken, under the lock, so
    // that a waiter between its check and its wait cannot miss it.
    void finishLocked() QRNHOST_REQUIRES(lock) {
        done.fetch_add(1, std::memory_order_acq_rel);
        over.notify_all();
    }

    // The dumps not complete yet, in order: caches by their address, flushes
    // by theirs. Only opens, drops and flushes touch them, never a write.
    std::mutex dumpLock;
    std::list<std::pair<const void*, std::string>> open QRNHOST_GUARDED_BY(dumpLock);
    std::list<std::pair<const void*, std::string>> pending QRNHOST_GUARDED_BY(dumpLock);
};

void forget(std::list<std::pair<const void*, std::string>>& dumps, const void* key) {
    for (auto it = dumps.begin(); it != dumps.end(); ++it) {
        if (it->first == key) {
            dumps.erase(it);
            return;
        }
    }
}

std::vector<std::string> names(const std::list<std::pair<const void*, std::string>>& dumps) {
    std::vector<std::string> out;
    out.reserve(dumps.size());
    for (const auto& d : dumps) out.push_back(d.second);
    return out;
}

// Never destroyed: flushes run in exit handlers. Built in static storage
// rather than on the heap, so that the library's first note cannot fail for
// want of memory (a throw inside a cache's constructor or under its locks).
State& state() {
    alignas(State) static unsigned char storage[sizeof(State)];
    static State* s = new (storage) State;
    return *s;
}

// Follows which dumps are not complete. A note made while memory is short
// must not throw: the list then misses that dump.
void track(State& s, const Note& n) {
    try {
        std::lock_guard<std::mutex> g(s.dumpLock);
        switch (n.event) {
            case Event::Open: s.open.emplace_back(n.cache, n.name != nullptr ? n.name : ""); break;
            case Event::Drop: forget(s.open, n.cache); break;
            case Event::Queue: s.pending.emplace_back(n.flush, n.name != nullptr ? n.name : ""); break;
            case Event::End:
            case Event::Discard: forget(s.pending, n.flush); break;
            default: break;
        }
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

const char* eventName(Event e) {
    switch (e) {
        case Event::Open: return "open";
        case Event::Write: return "write";
        case Event::Refuse: return "refuse";
        case Event::Drop: return "drop";
        case Event::Queue: return "queue";
        case Event::Begin: return "begin";
        case Event::Credit: return "credit";
        case Event::End: return "end";
        case Event::Discard: return "discard";
    }
    return "?";
}

void note(const Note& n) noexcept {
    State& s = state();
    if (n.event != Event::Write && n.event != Event::Refuse && n.event != Event::Credit && n.event != Event::Begin)
        track(s, n);
    switch (n.event) {
        case Event::Write:
        case Event::Refuse:
        case Event::Credit: s.charged.store(n.charged, std::memory_order_relaxed); break;
        case Event::Queue: s.queued.fetch_add(1, std::memory_order_acq_rel); break;
        default: break;
    }
    if (s.observerCount.load(std::memory_order_acquire) != 0) {
        std::lock_guard<std::mutex> g(s.lock);
        // An observer's exception must not unwind through the library's
        // locked sections: that note is lost to it instead.
        for (const auto& [id, observer] : s.observers) {
            try {
                observer(n);
            } catch (...) {
            }
        }
    }
    if (n.event == Event::End || n.event == Event::Discard) {
        std::lock_guard<std::mutex> g(s.lock);
        s.finishLocked();
    }
}

int addObserver(Observer observer) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    const int id = s.nextId++;
    s.observers.emplace_back(id, std::move(observer));
    s.observerCount.store(s.observers.size(), std::memory_order_release);
    return id;
}

void removeObserver(int id) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    for (auto it = s.observers.begin(); it != s.observers.end(); ++it) {
        if (it->first == id) {
            s.observers.erase(it);
            break;
        }
    }
    s.observerCount.store(s.observers.size(), std::memory_order_release);
}

uint64_t flushesQueued() {
    return state().queued.load(std::memory_order_acquire);
}

uint64_t flushesOver() {
    return state().done.load(std::memory_order_acquire);
}

bool waitForFlushes(std::chrono::milliseconds timeout) {
    State& s = state();
    // The queue runs flushes in the order they were handed over, so once as
    // many are over as were queued at the call, those are all over.
    const uint64_t target = s.queued.load(std::memory_order_acquire);
    std::unique_lock<std::mutex> lk(s.lock);
    return s.over.wait_for(lk, timeout, [&] { return s.done.load(std::memory_order_acquire) >= target; });
}

uint64_t charged() {
    return state().charged.load(std::memory_order_relaxed);
}

std::vector<std::string> openCaches() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.dumpLock);
    return names(s.open);
}

std::vector<std::string> pendingFlushes() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.dumpLock);
    return names(s.pending);
}

}  // namespace qrnhost::filecache
