// Names the output file of each recording, prepares its folder, and creates and starts the
// writer with one H.264 video input and one AAC audio input. Also runs the save-location picker.
//
// Threads: createAssetWriter and generateOutputURL run on the recorder's start thread,
// chooseSaveLocation on the main thread. currentOutputURL is read and cleared from the main
// thread while the start writes it, so it is guarded by a mutex.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/asset_writer.h"
#include "platform/display.h"
#include "platform/files.h"
#include "platform/user_interface.h"
#include "recording/service_contracts.h"

namespace gb {

inline constexpr const char* kCustomSaveLocationKey = "customSaveLocation";
inline constexpr const char* kRecordingsFolderName = "Glimmerbox Recordings";
inline constexpr const char* kOutputDatePattern = "yyyy-MM-dd_HH-mm-ss";

// The writer settings every recording uses, at the quality's size.
[[nodiscard]] VideoOutputSettingsForWriter videoSettingsForWriter(Resolution size);
[[nodiscard]] AudioOutputSettingsForWriter audioSettingsForWriter();
// The settings as a dictionary text, for the log:
// ["AVVideoCodecKey": avc1, "AVVideoWidthKey": 1280, ...].
[[nodiscard]] std::string describe(const VideoOutputSettingsForWriter& settings);

class RecordingFileManager final : public WriterService {
public:
    RecordingFileManager(FileSystem& fileSystem, DefaultsStore& defaults,
                         DateFormatter& dateFormatter, AssetWriterFactory& writerFactory,
                         DisplayProvider& display, FolderPicker& folderPicker);

    // Throws RecordingFileManagerError.
    WriterBundle createAssetWriter(VideoQuality quality) override;
    // The URL of a new output file. Nothing when the user has no Documents folder (and no
    // custom location is set); createAssetWriter then fails with urlCreationFailed.
    [[nodiscard]] std::optional<std::string> generateOutputURL();

    [[nodiscard]] std::optional<std::string> currentOutputURL() const override;
    void clearCurrentOutputURL() override;
    void chooseSaveLocation() override;

private:
    FileSystem& fileSystem_;
    DefaultsStore& defaults_;
    DateFormatter& dateFormatter_;
    AssetWriterFactory& writerFactory_;
    DisplayProvider& display_;
    FolderPicker& folderPicker_;

    mutable std::mutex mutex_;
    std::optional<std::string> currentOutputURL_;  // guarded by mutex_
};

}  // namespace gb
