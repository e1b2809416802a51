#include "fakes/xvfb_server.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "fakes/test_environment.h"

namespace gb::fakes {

XvfbServer::XvfbServer(std::unique_ptr<ChildProcess> process, std::string displayName)
    : process_(std::move(process)), displayName_(std::move(displayName)) {}

XvfbServer::~XvfbServer() = default;

std::unique_ptr<XvfbServer> XvfbServer::start(const Options& options) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
    const std::string screen = std::to_string(options.width) + "x" +
                               std::to_string(options.height) + "x" + std::to_string(options.depth);
    std::vector<std::string> args = {"Xvfb",      "-displayfd", std::to_string(fds[1]),
                                     "-screen",   "0",          screen,
                                     "-nolisten", "tcp",        "-noreset"};
    args.insert(args.end(), options.extraArguments.begin(), options.extraArguments.end());
    ChildProcess::Options childOptions;
    childOptions.keepFd = fds[1];  // Xvfb writes the display number here
    auto process = std::make_unique<ChildProcess>(std::move(args), childOptions);
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
    if (!complete || number.empty()) {
        std::fprintf(stderr, "Xvfb did not start (is it installed?)\n");
        return nullptr;  // the process handle ends the child
    }
    return std::unique_ptr<XvfbServer>(new XvfbServer(std::move(process), ":" + number));
}

pid_t XvfbServer::pid() const {
    return process_->pid();
}

void XvfbServer::kill() {
    process_->stop();
}

}  // namespace gb::fakes
