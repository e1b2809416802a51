// The running program on the session bus, and the commands that talk to it.
//
// The program owns its application id as a well-known name and serves, at the object path
// derived from it:
//   org.freedesktop.Application       Activate, Open, ActivateAction with the actions
//                                     "start-recording", "stop-recording", "toggle-recording"
//                                     (the desktop entry's actions, for launchers)
//   io.github.glimmerbox.Glimmerbox.Recording
//                                     Start, Stop, Toggle -> (state, last saved file), answered
//                                     once the recording has started or its file is saved; a
//                                     refusal or failure is a D-Bus error (kRefusedError,
//                                     kFailedError); properties State and LastSavedFile, with
//                                     PropertiesChanged
// With a D-Bus service file for the name installed, calling it starts the program.
//
// Threads: main thread (the QCoreApplication's).
#pragma once

#include <QDBusConnection>

#include <functional>
#include <memory>
#include <string>

#include "platform/remote_control.h"

namespace gb::linuxp {

inline constexpr const char* kApplicationId = "io.github.glimmerbox.Glimmerbox";
inline constexpr const char* kApplicationPath = "/io/github/glimmerbox/Glimmerbox";
inline constexpr const char* kRecordingInterface = "io.github.glimmerbox.Glimmerbox.Recording";
inline constexpr const char* kRefusedError = "io.github.glimmerbox.Glimmerbox.Error.Refused";
inline constexpr const char* kFailedError = "io.github.glimmerbox.Glimmerbox.Error.Failed";

class ApplicationObject;

class DBusApplication {
public:
    // `activate` runs for Activate and Open. `remote` outlives this object.
    DBusApplication(RecordingRemote& remote, std::function<void()> activate,
                    QDBusConnection bus = QDBusConnection::sessionBus());
    ~DBusApplication();
    DBusApplication(const DBusApplication&) = delete;
    DBusApplication& operator=(const DBusApplication&) = delete;

    // Serves the object, then takes the name. False, with the reason in failure(), without a
    // session bus or when another process owns the name.
    [[nodiscard]] bool publish();
    [[nodiscard]] const std::string& failure() const { return failure_; }

private:
    QDBusConnection bus_;
    std::unique_ptr<ApplicationObject> object_;
    std::string failure_;
};

// What the command line asks of the running program.
enum class ControlRequest { start, stop, toggle, status, activate };

// Exit statuses of the control commands.
inline constexpr int kControlDone = 0;
inline constexpr int kControlRefused = 1;
inline constexpr int kControlUnreachable = 3;
inline constexpr int kControlFailed = 4;

// Sends the request to the running program and prints what came of it: the state ("idle",
// "starting", "recording", "finishing") on standard output and, when idle, the last saved file on
// a second line; reasons on standard error. Start and toggle start the program through the bus
// when none runs; the others do not. Returns one of the exit statuses above.
int runControlRequest(ControlRequest request);

}  // namespace gb::linuxp
