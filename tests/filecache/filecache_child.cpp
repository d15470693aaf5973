// Helper process for the file cache and queue tests.
//   dump DIR CACHES BLOCKS SIZE: fills caches DIR/dumpN.bin with known
//     blocks, drops them and calls exit while their flushes are still queued.
//   selfdestroy: destroys a queue from inside its own job; exits 0 only if
//     that ever returns.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <IFileCache.h>
#include <future>
#include <string>

#include "FileCacheInternal.h"

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "selfdestroy") == 0) {
        auto* q = new NSCam::JobQueue<void(), NSCam::JQPriority(0)>("Child");
        (void)q->addJob(
            [q] {
                delete q;
                _exit(0);
            },
            0);
        for (;;) pause();
    }
    if (argc != 6 || strcmp(argv[1], "dump") != 0) return 2;
    // Hold the worker until exit() so that every flush is still queued then.
    static std::promise<void> release;
    (void)gFileCacheQueue.addJob([f = release.get_future().share()] { f.wait(); }, 0);
    const int caches = atoi(argv[3]), blocks = atoi(argv[4]);
    std::string block(strtoul(argv[5], nullptr, 10), '\0');
    for (int c = 0; c < caches; ++c) {
        auto fc = NSCam::IFileCache::open((std::string(argv[2]) + "/dump" + std::to_string(c) + ".bin").c_str());
        for (int b = 0; b < blocks; ++b) {
            for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(c * 31 + b * 7 + i % 251);
            if (fc->write(block.data(), static_cast<unsigned>(block.size())) < 0) return 3;
        }
    }
    printf("pending=%llu\n", static_cast<unsigned long long>(gCachedBytes.load()));
    fflush(stdout);
    release.set_value();
    exit(0);
}
