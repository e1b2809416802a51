#include "fakes/processes.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace gb::fakes {
using namespace std::chrono_literals;

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    for (const auto end = std::chrono::steady_clock::now() + timeout; !condition();) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

Process::Process(std::vector<std::string> argv, const std::map<std::string, std::string>& env) {
    // Everything the child needs is made before the fork: after it, only async-signal-safe calls.
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (!env.contains(entry.substr(0, entry.find('=')))) environment.push_back(entry);
    }
    for (const auto& [name, value] : env)
        if (!value.empty()) environment.push_back(name + "=" + value);
    std::vector<char*> args, envp;
    for (auto& a : argv) args.push_back(a.data());
    for (auto& e : environment) envp.push_back(e.data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = open((dir_ / "stdout").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open((dir_ / "stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        setpgid(0, 0);
        dup2(in, 0), dup2(out, 1), dup2(err, 2);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(in), close(out), close(err);
}

Process::~Process() {
    if (pid_ <= 0 || exitCode_) return;
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    eventually(
        [&] {
            int status = 0;
            if (!exitCode_ && waitpid(pid_, &status, WNOHANG) == pid_)
                exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitCode_.has_value();
        },
        timeout);
    return exitCode_;
}

void Process::signal(int sig) {
    if (pid_ > 0 && !exitCode_) kill(pid_, sig);
}

bool Process::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    const auto printed = [&] { return stdoutText().find(text) != std::string::npos; };
    eventually([&] { return printed() || !running(); }, timeout);
    return printed();
}

Run runToEnd(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
             std::chrono::milliseconds timeout) {
    Process p(argv, env);
    const auto code = p.wait(timeout);
    return {code, p.stdoutText(), p.stderrText()};
}

std::optional<std::string> runCommand(const std::vector<std::string>& argv,
                                      const std::map<std::string, std::string>& env,
                                      std::chrono::milliseconds timeout) {
    Run run = runToEnd(argv, env, timeout);
    if (run.exitCode != 0) return std::nullopt;
    return run.out;
}

VirtualMicrophone::VirtualMicrophone() {
    const std::string d = dir_.path();
    std::filesystem::create_directories(d + "/runtime");
    chmod((d + "/runtime").c_str(), 0700);
    daemon_.emplace(
        std::vector<std::string>{
            "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit",
            "--use-pid-file=no", "--disable-shm=yes", "--system=no", "--realtime=no",
            "--log-target=stderr", "-L",
            "module-native-protocol-unix socket=" + d + "/native auth-anonymous=1", "-L",
            "module-null-sink sink_name=e2e rate=44100 channels=2", "-L", "module-always-sink"},
        std::map<std::string, std::string>{{"HOME", d},
                                           {"XDG_RUNTIME_DIR", d + "/runtime"},
                                           {"XDG_CONFIG_HOME", d + "/config"},
                                           {"PULSE_COOKIE", ""},
                                           {"DISPLAY", ""}});
    ok_ = eventually(
              [&] {
                  return runCommand({"pactl", "info"}, env(), 2s).has_value();
              },
              10s) &&
          runCommand({"pactl", "set-default-source", "e2e.monitor"}, env()) &&
          runCommand({"pactl", "set-default-sink", "e2e"}, env());
}

std::unique_ptr<Process> VirtualMicrophone::playTone(double seconds, int frequencyHz) const {
    const std::string cmd = "sox -q -n -t raw -r 44100 -e signed -b 16 -c 2 - synth " +
                            std::to_string(seconds) + " sine " + std::to_string(frequencyHz) +
                            " vol 0.5 | pacat --raw --rate=44100 --channels=2 --format=s16le "
                            "--device=e2e --latency-msec=20";
    return std::make_unique<Process>(std::vector<std::string>{"sh", "-c", cmd}, env());
}

}  // namespace gb::fakes
