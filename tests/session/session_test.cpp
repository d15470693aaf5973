// The main program under faults: bad input, a summary that cannot be
// written, a directory shared by two sessions, a failed or stopped session.
// Each must end with a clear message and a non-zero exit, and leave no
// temporary directory behind unless asked to keep it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qrnhost/capture.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

namespace fs = std::filesystem;
const std::vector<std::string> kSmall = {"--frames", "4", "--frame-size", "64K", "--quiet-log"};

// Temporary directories a session left under dir.
int leftBehind(const std::string& dir) {
    int n = 0;
    for (const auto& e : fs::directory_iterator(dir))
        n += e.path().filename().string().rfind("qrncam-session-", 0) == 0;
    return n;
}

struct SessionChildTest : ::testing::Test {
    // Runs the program with TMPDIR in tmp; extra arguments after the small
    // session's.
    qrntest::ChildResult run(std::vector<std::string> args, std::vector<std::string> env = {}) {
        args.insert(args.begin(), kSmall.begin(), kSmall.end());
        args.insert(args.begin(), QRNCAM_SESSION);
        env.push_back("TMPDIR=" + tmp.path());
        return qrntest::runChild(args, env);
    }
    qt::TempDir tmp, out;
};

int exitCode(const qrntest::ChildResult& r) {
    return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : 1000 + WTERMSIG(r.status);
}

TEST_F(SessionChildTest, BadInputIsRefusedBeforeAnythingRuns) {
    const std::string file = out.file("props");
    struct Case {
        const char* what;
        std::vector<std::string> args;
        std::string fileContent;  // of QRNCAM_PROPERTIES_FILE; "/" names a directory
        const char* message;
    } cases[] = {
        {"blank key", {"--prop", " =1"}, "", "invalid --prop"},
        {"92-character value", {"--prop", "a.b=" + std::string(92, 'v')}, "", "invalid --prop"},
        {"malformed property file", {}, "a.b=1\nnot an assignment\n", ":2: expected key=value"},
        {"property file that is a directory", {}, "/", "which is not a readable file"},
        {"unknown scenario", {"--scenario", "fast"}, "", "invalid --scenario"},
        {"trace file that cannot be written",
         {"--trace", "/nonexistent/dir/t.json"},
         "",
         "cannot write the trace file"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> env;
        if (c.fileContent == "/") {
            env.push_back("QRNCAM_PROPERTIES_FILE=" + out.path());
        } else if (!c.fileContent.empty()) {
            qt::writeFile(file, c.fileContent);
            env.push_back("QRNCAM_PROPERTIES_FILE=" + file);
        }
        qrntest::ChildResult r = run(c.args, env);
        EXPECT_EQ(2, exitCode(r)) << c.what << "\n" << r.output;
        EXPECT_NE(std::string::npos, r.output.find(c.message)) << c.what << "\n" << r.output;
        EXPECT_EQ(0, leftBehind(tmp.path())) << c.what;
    }
}

TEST_F(SessionChildTest, FailuresEndCleanlyAndRemoveTheTemporaryDirectory) {
    // The record cannot be written (as on a full disk): no crash reading it.
    fs::create_directories(out.file("record.jsonl"));
    qrntest::ChildResult r = run({"--out", out.path()});
    EXPECT_EQ(1, exitCode(r)) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("cannot write " + out.file("record.jsonl"))) << r.output;

    // A second session in a directory that one is using.
    int fd = open(out.file(".qrncam_session.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    r = run({"--out", out.path()});
    close(fd);
    EXPECT_EQ(1, exitCode(r)) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("is in use by another session")) << r.output;
}

// Started with its output hidden, in a process group of its own; returns
// once its temporary directory exists and it has run a little.
pid_t startLongSession(const std::string& tmpdir, bool keep) {
    std::vector<std::string> args = {QRNCAM_SESSION, "--frames", "100000",     "--frame-size", "8",
                                     "--fps",        "1",        "--quiet-log"};
    if (keep) args.push_back("--keep");
    const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t pid = qrntest::startChild(args, {"TMPDIR=" + tmpdir}, devnull, true);
    close(devnull);
    for (int i = 0; i < 500 && leftBehind(tmpdir) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return pid;
}

TEST_F(SessionChildTest, StoppedOrFailedItRemovesTheTemporaryDirectoryUnlessKept) {
    for (bool keep : {false, true}) {
        // SIGTERM or Ctrl-C to the program, or its session process killed.
        for (int sig : {SIGTERM, SIGINT, SIGKILL}) {
            SCOPED_TRACE(std::string(strsignal(sig)) + (keep ? ", kept" : ""));
            pid_t pid = startLongSession(tmp.path(), keep);
            if (sig == SIGKILL) {
                std::string children;
                std::getline(
                    std::ifstream("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children"),
                    children);
                ASSERT_GT(atoi(children.c_str()), 0);
                kill(atoi(children.c_str()), SIGKILL);
            } else {
                kill(pid, sig);
            }
            int status = 0;
            waitpid(pid, &status, 0);
            if (sig == SIGKILL)
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
            else
                EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
            kill(-pid, SIGKILL);  // a session process the signal did not reach must not outlive the test
            EXPECT_EQ(keep ? 1 : 0, leftBehind(tmp.path()));
            for (const auto& e : fs::directory_iterator(tmp.path())) fs::remove_all(e.path());
        }
    }
}

}  // namespace
