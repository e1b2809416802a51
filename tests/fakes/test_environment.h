// What platform tests set up around themselves: a private temporary folder, environment variables
// that are put back afterwards, and child processes that are stopped with their handle and die
// with the test process if it crashes first.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A folder removed with everything in it (also what was made read-only).
class TempDirectory {
public:
    TempDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "glimmerbox.XXXXXX").string();
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
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets and unsets variables of this process; the destructor restores the earlier values.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment() {
        for (const auto& [name, value] : saved_)
            value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
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
        const char* value = std::getenv(name.c_str());
        if (!saved_.count(name)) saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
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
        for (char** e = environ; options.inheritEnvironment && *e != nullptr; ++e) {
            const std::string text = *e;
            if (std::none_of(options.environment.begin(), options.environment.end(),
                             [&](auto& v) { return text.starts_with(v.first + "="); }))
                environment.push_back(text);
        }
        for (const auto& [name, value] : options.environment) environment.push_back(name + "=" + value);
        std::vector<char*> args, env;
        for (std::string& arg : argv) args.push_back(arg.data());
        for (std::string& entry : environment) env.push_back(entry.data());
        args.push_back(nullptr);
        env.push_back(nullptr);
        const std::string output = options.outputFile.empty() ? "/dev/null" : options.outputFile;
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {  // only async-signal-safe calls from here on
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (out >= 0) ::dup2(out, STDOUT_FILENO), ::dup2(out, STDERR_FILENO);
            if (options.keepFd >= 0) ::fcntl(options.keepFd, F_SETFD, 0);
            ::execvpe(args[0], args.data(), env.data());
            ::_exit(127);
        }
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
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
    bool running() {  // an ended process is reaped here
        if (pid_ <= 0) return false;
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == 0) return true;
        status_ = done == pid_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = -1;
        return false;
    }
    pid_t pid_ = -1;
    int status_ = -1;
};

}  // namespace gb::fakes
