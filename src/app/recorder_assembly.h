// Builds the one ScreenRecorder with its four services over a given platform. The tray
// application and `glimmerbox record` both get their recorder here, so they record alike.
#pragma once

#include <memory>

#include "platform/access.h"
#include "platform/asset_writer.h"
#include "platform/capture.h"
#include "platform/dispatch.h"
#include "platform/display.h"
#include "platform/files.h"
#include "platform/image_composition.h"
#include "platform/media.h"
#include "platform/user_interface.h"
#include "recording/screen_recorder.h"

namespace gb {

// Every reference must outlive the recorder.
struct RecorderPlatform {
    Dispatch& dispatch;
    AccessRequester& access;
    CaptureFactory& capture;
    DisplayProvider& display;
    AssetWriterFactory& writers;
    FileSystem& files;
    DefaultsStore& defaults;
    DateFormatter& dates;
    FolderPicker& folderPicker;
    ImageCompositionBackend& imageComposition;
    PixelBufferFactory& pixelBuffers;
    SampleMaker& sampleMaker;
};

[[nodiscard]] std::shared_ptr<ScreenRecorder> makeScreenRecorder(const RecorderPlatform& platform);

}  // namespace gb
