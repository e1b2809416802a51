// Child processes for tests and the private servers made of them: a process with its output in
// files, killed with its group when its handle goes and by the kernel when the thread that started
// it ends first (a crashing test leaves nothing behind); and a private PulseAudio server whose
// default source is the monitor of a null sink.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fakes/test_environment.h"

namespace gb::fakes {

// Checks `condition` every 20 ms until it holds (true) or `timeout` has passed (false).
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(30));

std::string readText(const std::string& path);  // empty when unreadable

class Process {
public:
    // Runs argv (PATH is searched) with this process's environment changed by `env` (an empty
    // value removes the variable). Standard output and error go to files (see stdoutText()).
    Process(std::vector<std::string> argv, const std::map<std::string, std::string>& env = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    // Waits for exit; the exit code, or nothing on timeout. A signal death gives 128 + signal.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    [[nodiscard]] bool running() { return !wait(std::chrono::milliseconds(0)).has_value(); }
    void signal(int sig);
    [[nodiscard]] std::string stdoutText() const { return readText(dir_ / "stdout"); }
    [[nodiscard]] std::string stderrText() const { return readText(dir_ / "stderr"); }
    // Waits until standard output contains `text`.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout);

private:
    TempDirectory dir_;
    pid_t pid_ = -1;
    std::optional<int> exitCode_;
};

// A program run to completion (or to the timeout: no exit code) and what it printed.
struct Run {
    std::optional<int> exitCode;
    std::string out;
    std::string err;
};
Run runToEnd(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
             std::chrono::milliseconds timeout);

// Runs a command to completion; its standard output, or nothing when it failed.
std::optional<std::string> runCommand(const std::vector<std::string>& argv,
                                      const std::map<std::string, std::string>& env = {},
                                      std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A private PulseAudio server whose default source is the monitor of the null sink "e2e".
class VirtualMicrophone {
public:
    VirtualMicrophone();
    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] std::string server() const { return "unix:" + dir_.path() + "/native"; }
    // Environment that points clients at this server.
    [[nodiscard]] std::map<std::string, std::string> env() const {
        return {{"PULSE_SERVER", server()}};
    }
    [[nodiscard]] std::string log() const { return daemon_->stderrText(); }
    void kill() { daemon_->signal(SIGKILL); }
    // Plays a sine tone into the sink until the returned process ends (`seconds` long).
    [[nodiscard]] std::unique_ptr<Process> playTone(double seconds, int frequencyHz = 440) const;

private:
    TempDirectory dir_;
    std::optional<Process> daemon_;
    bool ok_ = false;
};

}  // namespace gb::fakes
