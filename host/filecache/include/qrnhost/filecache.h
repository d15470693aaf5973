// What the file cache does, as host programs and tests see it. A device
// build of the library reports nothing; a host build notes each step here
// (utils/sys/FileCacheObserve.h), so that a test can wait for the dumps its
// code caused and a host program can follow the dump budget and the flushes
// exactly, without reaching into the library.
#pragma once

#include <stdint.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qrnhost::filecache {

enum class Event : uint8_t {
    Open,     // a cache was made for name
    Write,    // a block of bytes was charged to the budget (charged: the total after)
    Refuse,   // a block of bytes did not fit the budget (charged: the total, unchanged)
    Drop,     // the cache's last reference went: its blocks go to the flush named by flush
    Queue,    // blocks (bytes in all) were handed to the flush named by flush
    Begin,    // the flush started writing name, on the thread that runs it
    Credit,   // bytes of a block the flush released went back to the budget
    End,      // the flush is over; ok when every block reached the file
    Discard,  // the flush was released without running; its blocks were credited
};
const char* eventName(Event e);

struct Note {
    Event event = Event::Open;
    const void* cache = nullptr;  // Open, Write, Refuse, Drop
    const void* flush = nullptr;  // Drop, Queue, Begin, Credit, End, Discard: one flush from Queue to End or Discard
    const char* name = nullptr;   // the file name (not for Credit)
    uint64_t bytes = 0;
    uint64_t charged = 0;  // the budget's total after the step (Write, Refuse, Credit)
    int64_t limit = 0;     // the budget's limit (Write, Refuse)
    bool ok = false;       // End
};

// Called by the library (host builds only). Never throws and never
// allocates, so it cannot change how the library fails.
void note(const Note& n) noexcept;

// Observers receive every note on the thread that made the step, in the
// order of the steps on the budget: the library holds its own locks while it
// calls them, so an observer must be quick and must not call the file cache;
// a note whose observer throws is lost to that observer.
// addObserver returns an id for removeObserver.
using Observer = std::function<void(const Note&)>;
int addObserver(Observer observer);
void removeObserver(int id);

// Flushes handed over so far, and those over (run or discarded).
uint64_t flushesQueued();
uint64_t flushesOver();
// Blocks until every flush handed over before the call is over, so that the
// files of every cache dropped so far are complete. False on timeout.
bool waitForFlushes(std::chrono::milliseconds timeout = std::chrono::seconds(30));
// The budget's total (bytes charged and not yet credited) as last noted.
uint64_t charged();

// Names of the files whose caches are open now (made and not yet dropped),
// and of those whose flushes are queued or running, in the order they were
// opened or queued: the dumps whose files are not complete yet.
std::vector<std::string> openCaches();
std::vector<std::string> pendingFlushes();

}  // namespace qrnhost::filecache
