// What platform tests set up around themselves: a private temporary folder, environment variables
// that are put back afterwards, and child processes that are stopped with their handle and die
// with the test process if it crashes first.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace gb::fakes {

// Polls `condition` until it holds or `timeout` passes; whether it held.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// A folder removed with everything in it (also what was made read-only).
class TempDirectory {
public:
    TempDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "glimmerbox.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const {
        return path_ + "/" + name;
    }

private:
    std::string path_;
};

// Sets and unsets variables of this process; the destructor restores the earlier values.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment() {
        for (const auto& [name, value] : saved_) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const std::string& name, const std::string& value) {
        save(name);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    void unset(const std::string& name) {
        save(name);
        ::unsetenv(name.c_str());
    }

private:
    void save(const std::string& name) {
        if (saved_.count(name) != 0) return;
        const char* value = std::getenv(name.c_str());
        saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
    }
    std::map<std::string, std::optional<std::string>> saved_;
};

// A child process started from argv (PATH is searched). Stopped with SIGTERM, then SIGKILL, when
// its handle goes; killed by the kernel when the thread that started it ends first.
class ChildProcess {
public:
    struct Options {
        std::vector<std::pair<std::string, std::string>> environment;  // set in the child
        bool inheritEnvironment = true;  // false: the child gets `environment` only
        std::string outputFile;          // appended to; empty: /dev/null
        int keepFd = -1;                 // a descriptor the child inherits
    };

    ChildProcess(std::vector<std::string> argv, const Options& options) {
        std::vector<std::string> environment;
        for (char** entry = environ; options.inheritEnvironment && *entry != nullptr; ++entry) {
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
        const std::string output = options.outputFile.empty() ? "/dev/null" : options.outputFile;
        const pid_t parent = ::getpid();

        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            // Only async-signal-safe calls from here on.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (out >= 0) {
                ::dup2(out, STDOUT_FILENO);
                ::dup2(out, STDERR_FILENO);
            }
            if (options.keepFd >= 0) ::fcntl(options.keepFd, F_SETFD, 0);
            ::execvpe(args[0], args.data(), env.data());
            ::_exit(127);
        }
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // True while the process has not ended (an ended one is reaped here).
    [[nodiscard]] bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == 0) return true;
        status_ = done == pid_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = -1;
        return false;
    }

    // Waits for the exit and gives its status code (-1: killed by a signal or timed out).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (!eventually([&] { return !running(); }, timeout)) stop(SIGKILL);
        return status_;
    }

    // Sends the signal; SIGKILL follows when the process does not end within three seconds.
    void stop(int signal = SIGTERM) {
        if (pid_ <= 0) return;
        ::kill(pid_, signal);
        if (!eventually([&] { return !running(); }, std::chrono::seconds(3))) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        status_ = -1;
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs `check` as an unprivileged user and gives its result (0..254); as root in a child
// process that drops to "nobody" (root may open anything), otherwise right here. Returns -1
// when the child could not run it.
inline int runUnprivileged(const std::function<int()>& check) {
    if (::geteuid() != 0) return check();
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(255);
        ::_exit(check());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 255) return -1;
    return WEXITSTATUS(status);
}

// A helper program built next to the test binary.
inline std::string toolPath(const std::string& name) {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

}  // namespace gb::fakes
