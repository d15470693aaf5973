// Helper process for the file cache and queue tests.
//   dump DIR: fills caches DIR/dump0.bin .. dump4.bin with four blocks each
//     (block b of cache c is 300000 bytes of 'A' + 4c + b), drops them and
//     calls exit while their flushes are still queued.
//   selfdestroy: destroys a queue from inside its own job; exits 0 only if
//     that ever returns.
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
        (void)q->addJob([q] { delete q, _exit(0); }, 0);
        for (;;) pause();
    }
    if (argc != 3 || strcmp(argv[1], "dump") != 0) return 2;
    // Hold the worker until exit() so that every flush is still queued then.
    static std::promise<void> release;
    (void)gFileCacheQueue.addJob([f = release.get_future().share()] { f.wait(); }, 0);
    for (int c = 0; c < 5; ++c) {
        auto fc = NSCam::IFileCache::open((std::string(argv[2]) + "/dump" + std::to_string(c) + ".bin").c_str());
        for (int b = 0; b < 4; ++b) {
            const std::string block(300000, static_cast<char>('A' + c * 4 + b));
            if (fc->write(block.data(), static_cast<unsigned>(block.size())) < 0) return 3;
        }
    }
    release.set_value();
    exit(0);
}
