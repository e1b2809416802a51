// Test helpers for platform tests: a private temporary folder, environment variables that are
// put back afterwards, and child processes that die with the test (also when it crashes).
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
#include <vector>

namespace gb::testsupport {

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
    TempDirectory(TempDirectory&&) = delete;
    TempDirectory& operator=(TempDirectory&&) = delete;

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
    ScopedEnvironment(ScopedEnvironment&&) = delete;
    ScopedEnvironment& operator=(ScopedEnvironment&&) = delete;

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

// A child process with its own environment and output file. It is killed when this object goes,
// and by the kernel when the test process dies.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& env,
                 const std::string& outputFile) {
        std::vector<char*> argv;
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const auto& entry : env) envp.push_back(const_cast<char*>(entry.c_str()));
        envp.push_back(nullptr);
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            const int out = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            ::execvpe(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
    }
    ~ChildProcess() { kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ChildProcess(ChildProcess&&) = delete;
    ChildProcess& operator=(ChildProcess&&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Waits for the exit and gives its status code (-1: killed by a signal or timed out).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (pid_ <= 0) return status_;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            int status = 0;
            const pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                pid_ = -1;
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                return status_;
            }
            if (done < 0 || std::chrono::steady_clock::now() > deadline) {
                kill();
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    // SIGTERM, then SIGKILL when it does not end within a second.
    void kill(int signal = SIGTERM) {
        if (pid_ <= 0) return;
        ::kill(pid_, signal);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        status_ = -1;
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs `check` as an unprivileged user and gives its result (0..255); as root in a child
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

}  // namespace gb::testsupport
