// A private virtual X display for tests and benchmarks: starts Xvfb on a free display number
// (-displayfd) and ends it when destroyed. Xvfb also dies with the thread that started it, so a
// crashing test leaves no server behind.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace gb::fakes {

class Process;

class XvfbServer {
public:
    struct Options {
        int width = 1920;
        int height = 1080;
        int depth = 24;
    };

    // The running server, or null (with a message on stderr) when Xvfb could not start.
    [[nodiscard]] static std::unique_ptr<XvfbServer> start(const Options& options);
    [[nodiscard]] static std::unique_ptr<XvfbServer> start() { return start(Options{}); }

    ~XvfbServer();
    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    // ":N"
    [[nodiscard]] const std::string& displayName() const { return displayName_; }
    [[nodiscard]] pid_t pid() const;
    // Kills the server and keeps its display number taken until this object goes, so that no
    // other Xvfb (of a test running in parallel) answers under the same name meanwhile. False
    // when another server got the number first.
    [[nodiscard]] bool killKeepingTheDisplayNumber();

private:
    XvfbServer(std::unique_ptr<Process> process, std::string displayName);
    std::unique_ptr<Process> process_;
    std::string displayName_;
    int reservation_ = -1;  // a socket bound to the display's abstract address
};

}  // namespace gb::fakes
