#include "fakes/xvfb_server.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "fakes/processes.h"

namespace gb::fakes {

XvfbServer::XvfbServer(std::unique_ptr<Process> process, std::string displayName)
    : process_(std::move(process)), displayName_(std::move(displayName)) {}

XvfbServer::~XvfbServer() {
    process_.reset();
    if (reservation_ < 0) return;
    // A killed server leaves its socket file behind; the number is still ours to clean up.
    const std::string number = displayName_.substr(1);
    ::unlink(("/tmp/.X11-unix/X" + number).c_str());
    ::unlink(("/tmp/.X" + number + "-lock").c_str());
    ::close(reservation_);
}

std::unique_ptr<XvfbServer> XvfbServer::start(const Options& options) {
    const std::string screen = std::to_string(options.width) + "x" +
                               std::to_string(options.height) + "x" + std::to_string(options.depth);
    // Xvfb prints its display number ("N\n") once it accepts connections.
    auto process = std::make_unique<Process>(
        std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", screen, "-nolisten",
                                 "tcp", "-noreset", "+extension", "RANDR"});
    if (!process->waitForOutput("\n", std::chrono::seconds(20))) {
        std::fprintf(stderr, "Xvfb did not start (is it installed?)\n");
        return nullptr;  // the process handle ends the child
    }
    const std::string number = process->stdoutText();
    return std::unique_ptr<XvfbServer>(
        new XvfbServer(std::move(process), ":" + number.substr(0, number.find('\n'))));
}

pid_t XvfbServer::pid() const {
    return process_->pid();
}

// Xvfb looks for a free number by binding the abstract socket "@/tmp/.X11-unix/X<N>"; whoever
// holds that address holds the number, and clients that try it are refused. It is taken the
// moment the dying server lets go of it, before the process is even reaped.
bool XvfbServer::killKeepingTheDisplayNumber() {
    if (reservation_ >= 0) return true;
    reservation_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (reservation_ < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "/tmp/.X11-unix/X" + displayName_.substr(1);
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const auto bound = [&] {
        return ::bind(reservation_, reinterpret_cast<sockaddr*>(&address), length) == 0;
    };
    ::kill(process_->pid(), SIGKILL);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool ok = false;
    while (!(ok = bound()) && errno == EADDRINUSE && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    process_->wait(std::chrono::seconds(5));  // reaps it
    // Still in use once the server is gone: another server has the number now.
    if (!ok) ok = bound();
    if (!ok) {
        ::close(reservation_);
        reservation_ = -1;
    }
    return ok;
}

}  // namespace gb::fakes
