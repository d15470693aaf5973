// Helper process for the file cache and queue tests.
//   dump DIR: fills caches DIR/dump0.bin .. dump4.bin with four blocks each
//     (block b of cache c is 300000 bytes of 'A' + 4c + b), drops them and
//     calls exit while their flushes are still queued.
//   selfdestroy: destroys a queue from inside its own job; exits 0 only if
//     that ever returns.
//   fork DIR: queues the flushes of DIR/parent0.bin .. parent2.bin behind a
//     job that holds the worker, then forks. The child dumps DIR/child.bin
//     (its queue refuses jobs, ids still counted) and calls exit; the parent
//     checks that the child exited within 20 s, that its dump is complete
//     and that it wrote none of the parent's, then releases its worker and
//     exits, which writes them.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
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
    if (argc == 3 && strcmp(argv[1], "fork") == 0) {
        const std::string dir = argv[2];
        auto dump = [](const std::string& path, const std::string& data) {
            auto fc = NSCam::IFileCache::open(path.c_str());
            return fc->write(data.data(), static_cast<unsigned>(data.size())) == static_cast<int>(data.size());
        };
        static std::promise<void> release;
        std::promise<void> held;
        (void)gFileCacheQueue.addJob(
            [f = release.get_future().share(), &held] {
                held.set_value();
                f.wait();
            },
            0);
        // Fork only once the worker sits in that job. A fork while another
        // thread is inside malloc leaves the sanitizers' allocator locked in
        // the child (glibc's own malloc is safe).
        held.get_future().wait();
        for (int c = 0; c < 3; ++c)
            if (!dump(dir + "/parent" + std::to_string(c) + ".bin", "parent " + std::to_string(c))) return 3;
        pid_t pid = fork();
        if (pid == 0) {
            // The child's queue is stopped: a job is refused, its id used up.
            const uint32_t before = gFileCacheQueue.addJob([] {}, 0).first;
            auto refused = gFileCacheQueue.addJob([] {}, 0);
            if (refused.second.valid() || refused.first != before + 1) exit(7);
            exit(dump(dir + "/child.bin", "child") ? 0 : 3);
        }
        int status = 0;
        for (int i = 0; i < 200 && waitpid(pid, &status, WNOHANG) == 0; ++i) usleep(100000);
        if (waitpid(pid, &status, WNOHANG) == 0) {
            fprintf(stderr, "the child did not exit\n");
            kill(pid, SIGKILL);
            return 4;
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return 5;
        for (int c = 0; c < 3; ++c) {
            if (access((dir + "/parent" + std::to_string(c) + ".bin").c_str(), F_OK) == 0) {
                fprintf(stderr, "the child wrote parent%d.bin\n", c);
                return 6;
            }
        }
        release.set_value();
        exit(0);
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
