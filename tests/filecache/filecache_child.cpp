// Helper process for the file cache and queue tests.
//   filecache_child dump DIR    opens several caches in DIR, fills them in a
//                               known order, drops them and calls exit while
//                               their flushes are still queued.
//   filecache_child selfdestroy destroys a queue from inside one of its jobs;
//                               prints "returned" if that ever comes back.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <IFileCache.h>
#include <JobQueue.h>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "FileCacheInternal.h"

namespace {

// Block b of cache c: a recognisable pattern, so the parent can check both
// completeness and order.
std::vector<unsigned char> block(int c, int b, size_t size) {
    std::vector<unsigned char> v(size);
    for (size_t i = 0; i < size; ++i) v[i] = static_cast<unsigned char>(c * 31 + b * 7 + i % 251);
    return v;
}

int dump(const char* dir, int caches, int blocks, size_t size) {
    // Keep the worker busy so that every flush below is still queued when
    // exit() runs.
    (void)gFileCacheQueue.addJob([] { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }, 0);
    for (int c = 0; c < caches; ++c) {
        android::sp<NSCam::IFileCache> fc =
            NSCam::IFileCache::open((std::string(dir) + "/dump" + std::to_string(c) + ".bin").c_str());
        for (int b = 0; b < blocks; ++b) {
            std::vector<unsigned char> v = block(c, b, size);
            if (fc->write(v.data(), static_cast<unsigned>(v.size())) != static_cast<int>(v.size())) return 3;
        }
    }
    printf("pending=%llu\n", static_cast<unsigned long long>(gCachedBytes.load()));
    fflush(stdout);
    exit(0);
}

int selfDestroy() {
    auto* q = new NSCam::JobQueue<void(), NSCam::JQPriority(0)>("Child");
    (void)q->addJob(
        [q] {
            delete q;
            printf("returned\n");
            fflush(stdout);
        },
        0);
    for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && strcmp(argv[1], "dump") == 0)
        return dump(argv[2], atoi(argv[3]), atoi(argv[4]), strtoul(argv[5], nullptr, 10));
    if (argc == 2 && strcmp(argv[1], "selfdestroy") == 0) return selfDestroy();
    fprintf(stderr, "usage: %s dump DIR CACHES BLOCKS SIZE | selfdestroy\n", argv[0]);
    return 2;
}
