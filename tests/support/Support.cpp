#include "Support.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qrntest {

pid_t startChild(const std::vector<std::string>& argv, const std::vector<std::string>& env, int out, bool ownGroup) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    if (ownGroup) setpgid(0, 0);
    dup2(out, 1), dup2(out, 2);
    for (auto& e : env) putenv(strdup(e.c_str()));
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

ChildResult runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    ChildResult res;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return res;
    const pid_t pid = startChild(argv, env, fds[1]);
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) res.output.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, &res.status, 0);
    return res;
}

std::string exitDumpProblem(const std::string& child) {
    qrnhost::testing::TempDir dir;
    ChildResult r = runChild({child, "dump", dir.path()});
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) return "the child failed: " + r.output;
    for (int c = 0; c < 5; ++c) {
        std::string expected;
        for (int b = 0; b < 4; ++b) expected += std::string(300000, static_cast<char>('A' + c * 4 + b));
        if (expected != qrnhost::testing::readFile(dir.file("dump" + std::to_string(c) + ".bin")))
            return "dump" + std::to_string(c) + ".bin is not whole";
    }
    return "";
}

Reported::Reported()
    : mPrevious(qrnhost::testing::setFailureReporter([this](const std::string& m) {
          std::lock_guard<std::mutex> g(mLock);
          mMessages.push_back(m);
      })) {}

Reported::~Reported() {
    qrnhost::testing::setFailureReporter(std::move(mPrevious));
}

std::vector<std::string> Reported::messages() const {
    std::lock_guard<std::mutex> g(mLock);
    return mMessages;
}

}  // namespace qrntest
