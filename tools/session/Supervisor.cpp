#include "Supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "Run.h"
#include "Session.h"

namespace session {

namespace fs = std::filesystem;

namespace {

// The session's pid while it runs, for the signal handler.
volatile sig_atomic_t gChild = 0;
volatile sig_atomic_t gSignal = 0;

void onSignal(int sig) {
    gSignal = sig;
    if (gChild > 0) kill(gChild, sig);
}

// One session per directory: a second one would mix its dumps and record
// with the first's. Held until the process ends.
bool lockDirectory(const std::string& dir) {
    const std::string path = dir + "/.qrncam_session.lock";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "qrncam_session: cannot create %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        fprintf(stderr, "qrncam_session: %s is in use by another session; give each session its own --out\n",
                dir.c_str());
        close(fd);
        return false;
    }
    return true;  // fd stays open: the lock lasts as long as the process
}

}  // namespace

int supervise(const Options& o, const std::function<int(const Outcome&)>& report) {
    Outcome out;
    if (o.outDir.empty()) {
        const char* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qrncam-session-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr) {
            fprintf(stderr, "qrncam_session: cannot create a temporary directory: %s\n", strerror(errno));
            return 1;
        }
        out.dir = buf.data();
    } else {
        std::error_code ec;
        fs::create_directories(o.outDir, ec);
        if (ec) {
            fprintf(stderr, "qrncam_session: cannot create %s: %s\n", o.outDir.c_str(), ec.message().c_str());
            return 1;
        }
        out.dir = o.outDir;
    }
    // Removes the temporary directory unless the user wants it kept.
    auto finish = [&](int rc) {
        if (o.keep) {
            printf("kept:                      %s\n", out.dir.c_str());
        } else {
            std::error_code ec;
            fs::remove_all(out.dir, ec);
        }
        return rc;
    };
    if (!lockDirectory(out.dir)) return o.keep ? 1 : finish(1);
    printf("qrncam_session: working in %s\n", out.dir.c_str());
    fflush(stdout);
    {
        std::ofstream opts(out.dir + "/" + kOptionsFile);
        opts << o.toJson();
        if (!opts.flush()) {
            fprintf(stderr, "qrncam_session: cannot write %s/%s\n", out.dir.c_str(), kOptionsFile);
            return finish(1);
        }
    }

    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return finish(1);
    }
    if (pid == 0) {
        const char* const args[] = {"/proc/self/exe", "--session", out.dir.c_str(), nullptr};
        execv(args[0], const_cast<char* const*>(args));
        perror("execv");
        _exit(127);
    }
    gChild = pid;
    if (gSignal != 0) kill(pid, gSignal);  // came before gChild was set
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gChild = 0;
    out.status = status;
    out.pid = pid;
    out.ended = qrnsession::wallClockNow();
    if (gSignal != 0) {
        const int sig = gSignal;
        fprintf(stderr, "qrncam_session: stopped by signal %d\n", sig);
        finish(1);
        signal(sig, SIG_DFL);
        raise(sig);  // the status the caller expects of a stopped program
        return 128 + sig;
    }
    return finish(report(out));
}

int sessionProcess(const std::string& dir) {
    std::ifstream in(dir + "/" + kOptionsFile);
    std::stringstream text;
    text << in.rdbuf();
    Options o;
    std::string error;
    if (!in || !o.fromJson(text.str(), &error)) {
        fprintf(stderr, "qrncam_session: cannot read %s/%s: %s\n", dir.c_str(), kOptionsFile, error.c_str());
        return 2;
    }
    return runSession(o, dir);
}

}  // namespace session
