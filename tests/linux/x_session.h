// Programs that a Linux test starts for itself: a private Xvfb server (on a free display number),
// a window manager, helper windows. Every child is stopped when its handle goes, and dies with
// the test process if that crashes first.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace gb::testsupport {

// Polls `condition` until it holds or `timeout` passes; whether it held.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// A child process: started from argv (PATH is searched), with extra environment entries, its
// output to /dev/null unless asked otherwise. Stopped with SIGTERM (then SIGKILL) when destroyed.
class ChildProcess {
public:
    struct Options {
        std::vector<std::pair<std::string, std::string>> environment;
        int keepFd = -1;  // a descriptor the child inherits (not closed on exec)
        bool showOutput = false;
    };

    ChildProcess(std::vector<std::string> argv, Options options) {
        std::vector<std::string> environment;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string text = *entry;
            bool replaced = false;
            for (const auto& [name, value] : options.environment) {
                replaced = replaced || text.starts_with(name + "=");
            }
            if (!replaced) environment.push_back(text);
        }
        for (const auto& [name, value] : options.environment) {
            environment.push_back(name + "=" + value);
        }
        std::vector<char*> args;
        for (std::string& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        std::vector<char*> env;
        for (std::string& entry : environment) env.push_back(entry.data());
        env.push_back(nullptr);
        const pid_t parent = getpid();

        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            // Only async-signal-safe calls from here on.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
            if (!options.showOutput) {
                const int null = open("/dev/null", O_WRONLY);
                dup2(null, STDOUT_FILENO);
                dup2(null, STDERR_FILENO);
            }
            if (options.keepFd >= 0) fcntl(options.keepFd, F_SETFD, 0);
            execvpe(args[0], args.data(), env.data());
            _exit(127);
        }
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // True while the process has not ended.
    [[nodiscard]] bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        return true;
    }

    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        if (!eventually([&] { return !running(); }, std::chrono::seconds(3))) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// A private Xvfb server; `name()` is its display (":N").
class XvfbServer {
public:
    XvfbServer() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        ChildProcess::Options options;
        options.keepFd = fds[1];
        process_.emplace(
            std::vector<std::string>{"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0",
                                     "1024x768x24", "-nolisten", "tcp", "-noreset"},
            options);
        close(fds[1]);
        std::string number;
        pollfd readable{fds[0], POLLIN, 0};
        char c = 0;
        while (poll(&readable, 1, 10000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n') {
            number.push_back(c);
        }
        close(fds[0]);
        if (number.empty()) throw std::runtime_error("Xvfb did not start");
        name_ = ":" + number;
    }

    [[nodiscard]] const std::string& name() const { return name_; }

private:
    std::optional<ChildProcess> process_;
    std::string name_;
};

// A scratch directory removed with everything in it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "glimmerbox-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A helper program built next to the test binary.
inline std::string toolPath(const std::string& name) {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

}  // namespace gb::testsupport
