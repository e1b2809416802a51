#include "app/recorder_assembly.h"

#include "capture/capture_session_manager.h"
#include "composition/video_composer.h"
#include "recording/permission_manager.h"
#include "recording/recording_file_manager.h"

namespace gb {

std::shared_ptr<ScreenRecorder> makeScreenRecorder(const RecorderPlatform& p) {
    ScreenRecorder::Services services{
        std::make_shared<PermissionManager>(p.access),
        std::make_shared<CaptureSessionManager>(p.capture, p.display, p.dispatch),
        std::make_shared<VideoComposer>(p.imageComposition, p.pixelBuffers, p.sampleMaker),
        std::make_shared<RecordingFileManager>(p.files, p.defaults, p.dates, p.writers, p.display,
                                               p.folderPicker),
    };
    return ScreenRecorder::create(std::move(services), p.dispatch);
}

}  // namespace gb
