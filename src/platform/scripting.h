// Scripting and application finding, for the editor automation.
//
// Threads: ApplicationFinder may be called from any thread. ScriptRunner::run blocks the calling
// thread while the script runs (the background executor's or the main thread's).
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace gb {

class RunningApplication {
public:
    virtual ~RunningApplication() = default;
    [[nodiscard]] virtual std::string bundleIdentifier() const = 0;
    // Brings the application to the front; the result is advisory.
    virtual bool activate() = 0;
};
using RunningApplicationRef = std::shared_ptr<RunningApplication>;

class ApplicationFinder {
public:
    virtual ~ApplicationFinder() = default;
    // The running applications with the bundle identifier, possibly none, in the platform's order.
    [[nodiscard]] virtual std::vector<RunningApplicationRef> runningApplications(
        const std::string& bundleIdentifier) = 0;
};

struct ScriptOutcome {
    enum class Kind { succeeded, notCreated, failed };
    Kind kind = Kind::succeeded;
    std::string errorDescription;  // the printable error information when failed
};

class ScriptRunner {
public:
    virtual ~ScriptRunner() = default;
    // Compiles and runs a script text synchronously.
    virtual ScriptOutcome run(const std::string& source) = 0;
};

}  // namespace gb
