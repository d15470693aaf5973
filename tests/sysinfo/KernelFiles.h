// Test fixture pieces for the kernel files: a temporary directory whose
// files stand behind the fixed paths, and a watch that counts opens of a
// file, so a test can tell whether a call touched it at all.
#pragma once

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <qrnhost/kernelfs.h>
#include <string>

#include "Capture.h"

namespace sysinfotest {

inline constexpr const char* kMeminfo = "/proc/meminfo";
inline constexpr const char* kThermalValueNode = "/proc/qrntz/qrntsAP";
inline constexpr const char* kThermalModeNode = "/proc/driver/cl_apu_status";

class KernelFilesTest : public ::testing::Test {
  protected:
    void TearDown() override { qrnhost::kernelfs::reset(); }

    // Puts content behind the fixed path; returns the file's real path.
    std::string place(const char* fixedPath, const std::string& content) {
        std::string p = mDir.file(std::to_string(mNext++));
        qrntest::writeFile(p, content);
        qrnhost::kernelfs::redirect(fixedPath, p);
        return p;
    }
    // Makes the fixed path lead nowhere.
    void remove(const char* fixedPath) { qrnhost::kernelfs::redirect(fixedPath, mDir.file("absent/node")); }

    qrntest::TempDir mDir;
    int mNext = 0;
};

// Counts IN_OPEN events of one file from construction on. Events are queued
// by the open call itself, so they are there when the call returns; but an
// unread event equal to the one before it is merged into it, so call opens()
// after each open to be counted.
class OpenWatch {
  public:
    explicit OpenWatch(const std::string& path) : mFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(mFd, 0);
        EXPECT_GE(inotify_add_watch(mFd, path.c_str(), IN_OPEN), 0);
    }
    ~OpenWatch() { close(mFd); }
    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

    int opens() {
        alignas(inotify_event) char buf[4096];
        ssize_t n;
        while ((n = read(mFd, buf, sizeof buf)) > 0) {
            for (char* p = buf; p < buf + n;) {
                auto* ev = reinterpret_cast<inotify_event*>(p);
                if (ev->mask & IN_OPEN) ++mOpens;
                p += sizeof(inotify_event) + ev->len;
            }
        }
        return mOpens;
    }

  private:
    int mFd;
    int mOpens = 0;
};

}  // namespace sysinfotest
