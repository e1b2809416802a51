#include "fakes/xvfb_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace gb::fakes {
namespace {

// Waits up to `timeoutMs` for the child to end and reaps it; true when it ended.
bool waitForExit(pid_t pid, int timeoutMs) {
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd pfd{pidfd, POLLIN, 0};
        poll(&pfd, 1, timeoutMs);
        close(pidfd);
    }
    int status = 0;
    // Without pidfd (old kernels) wait blocking; Xvfb ends promptly on SIGTERM.
    return waitpid(pid, &status, pidfd >= 0 ? WNOHANG : 0) == pid;
}

}  // namespace

std::unique_ptr<XvfbServer> XvfbServer::start(const Options& options) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
    const std::string screen = std::to_string(options.width) + "x" +
                               std::to_string(options.height) + "x" + std::to_string(options.depth);
    std::vector<std::string> args = {"Xvfb",      "-displayfd", std::to_string(fds[1]),
                                     "-screen",   "0",          screen,
                                     "-nolisten", "tcp",        "-noreset"};
    args.insert(args.end(), options.extraArguments.begin(), options.extraArguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return nullptr;
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        fcntl(fds[1], F_SETFD, 0);  // Xvfb writes the display number here
        const int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            dup2(devnull, STDOUT_FILENO);
            dup2(devnull, STDERR_FILENO);
        }
        execvp("Xvfb", argv.data());
        _exit(127);
    }
    close(fds[1]);

    // Xvfb writes "N\n" once it accepts connections; EOF means it gave up.
    std::string number;
    bool complete = false;
    pollfd pfd{fds[0], POLLIN, 0};
    while (!complete && poll(&pfd, 1, 20'000) > 0) {
        char buffer[16];
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; ++i) {
            if (buffer[i] == '\n') complete = true;
            if (buffer[i] >= '0' && buffer[i] <= '9') number.push_back(buffer[i]);
        }
    }
    close(fds[0]);
    auto server = std::unique_ptr<XvfbServer>(new XvfbServer(pid, ":" + number));
    if (!complete || number.empty()) {
        std::fprintf(stderr, "Xvfb did not start (is it installed?)\n");
        return nullptr;  // the destructor ends the child
    }
    return server;
}

void XvfbServer::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    if (!waitForExit(pid_, 5'000)) {
        ::kill(pid_, SIGKILL);
        waitForExit(pid_, 5'000);
    }
    pid_ = -1;
}

XvfbServer::~XvfbServer() {
    kill();
}

}  // namespace gb::fakes
