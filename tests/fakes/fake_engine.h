// The recording engine over the platform fakes, wired the way the program wires it: access,
// files, settings, dates, writers, display and folder picker, and the capture and composition
// services that makeRecorder gives each recorder it makes.
#pragma once

#include <memory>

#include "fakes/fake_access.h"
#include "fakes/fake_display.h"
#include "fakes/fake_files.h"
#include "fakes/fake_recording_services.h"
#include "fakes/fake_writer.h"
#include "fakes/log_capture.h"
#include "platform/dispatch.h"
#include "recording/permission_manager.h"
#include "recording/recording_file_manager.h"
#include "recording/screen_recorder.h"

namespace gb::fakes {

struct FakeEngine {
    // Writers, inputs and capture sessions report their calls to `calls` when given.
    explicit FakeEngine(CallLog* calls = nullptr) : calls_(calls), factory(&files, calls) {
        access.grantAll();
    }

    // A recorder on fresh capture and composition services; the permissions default to a
    // PermissionManager over `access`.
    std::shared_ptr<ScreenRecorder> makeRecorder(
        Dispatch& dispatch, std::shared_ptr<PermissionService> permissions = {}) {
        capture = std::make_shared<FakeCaptureService>(calls_);
        composer = std::make_shared<FakeCompositionService>();
        fileManager = std::make_shared<RecordingFileManager>(files, defaults, dates, factory,
                                                             display, picker);
        if (!permissions) permissions = std::make_shared<PermissionManager>(access);
        return ScreenRecorder::create({std::move(permissions), capture, composer, fileManager},
                                      dispatch);
    }

private:
    CallLog* const calls_;

public:
    FakeAccessRequester access;
    FakeFileSystem files;
    FakeDefaultsStore defaults;
    FakeDateFormatter dates;
    FakeAssetWriterFactory factory;
    FakeDisplayProvider display;
    FakeFolderPicker picker;
    std::shared_ptr<FakeCaptureService> capture;
    std::shared_ptr<FakeCompositionService> composer;
    std::shared_ptr<RecordingFileManager> fileManager;
};

}  // namespace gb::fakes
