// The recording file manager: the output file's name and folder, the writer's settings and
// preparation, and the save-location picker.
#include <gtest/gtest.h>

#include "fakes/fake_display.h"
#include "fakes/fake_files.h"
#include "fakes/fake_writer.h"
#include "fakes/log_capture.h"
#include "recording/errors.h"
#include "recording/recording_file_manager.h"

namespace gb {
namespace {

using namespace gb::fakes;
using Strings = std::vector<std::string>;

const std::string kDefaultFolder = "/home/user/Documents/Glimmerbox Recordings";
const std::string kFileName = "glimmerbox-2025-03-14_09-26-53.mov";
const std::string kDefaultPath = kDefaultFolder + "/" + kFileName;

std::string videoSettingsLine(int width, int height) {
    return "Video settings: [\"AVVideoCodecKey\": avc1, \"AVVideoWidthKey\": " +
           std::to_string(width) + ", \"AVVideoHeightKey\": " + std::to_string(height) +
           ", \"AVVideoCompressionPropertiesKey\": [\"AverageBitRate\": 2000000, "
           "\"ProfileLevel\": H264_Main_AutoLevel, \"H264EntropyMode\": CAVLC]]";
}

class FileManagerTest : public ::testing::Test {
protected:
    // The error that createAssetWriter throws, or fails the test when it returns.
    RecordingFileManagerError createFails(VideoQuality quality = VideoQuality::medium) {
        try {
            (void)manager.createAssetWriter(quality);
        } catch (const RecordingFileManagerError& error) {
            return error;
        }
        ADD_FAILURE() << "createAssetWriter did not throw";
        return RecordingFileManagerError::urlCreationFailed();
    }
    LogCapture log;
    FakeFileSystem files;
    FakeDefaultsStore defaults;
    FakeDateFormatter dates;
    FakeAssetWriterFactory factory{&files};
    FakeDisplayProvider display;
    FakeFolderPicker picker;
    RecordingFileManager manager{files, defaults, dates, factory, display, picker};
};

TEST_F(FileManagerTest, NamesTheFileByTheStartSecondAndCreatesTheDefaultFolderEveryTime) {
    EXPECT_EQ(manager.generateOutputURL(), kDefaultPath);
    ASSERT_EQ(dates.requests().size(), 1u);
    EXPECT_EQ(dates.requests()[0].pattern, "yyyy-MM-dd_HH-mm-ss");
    EXPECT_EQ(dates.requests()[0].date, dates.now());
    EXPECT_TRUE(files.createDirectoryCalls().at(0).intermediates);
    EXPECT_TRUE(files.directoryExists(kDefaultFolder));
}

TEST_F(FileManagerTest, CustomFolderThatNoLongerExistsFailsTheWriterCreation) {
    defaults.setURL("/media/gone", "customSaveLocation");
    EXPECT_EQ(createFails().errorDescription(),
              "Failed to create video writer: The folder \u201C/media/gone\u201D doesn\u2019t "
              "exist.");
    EXPECT_FALSE(files.directoryExists("/media/gone"));
    // The URL stays until the recorder's clean-up clears it.
    EXPECT_EQ(manager.currentOutputURL(), "/media/gone/" + kFileName);
}

TEST_F(FileManagerTest, SameSecondNameCollisionReplacesTheOldFileEvenIfRemovalFails) {
    (void)manager.createAssetWriter(VideoQuality::medium);
    files.writeFile(kDefaultPath, "first recording");
    (void)manager.createAssetWriter(VideoQuality::medium);
    EXPECT_EQ(files.removeCalls(), Strings{kDefaultPath});
    EXPECT_EQ(files.fileContents(kDefaultPath), "written by writer " + kDefaultPath);
    files.setRemoveError(PlatformError{"NSCocoaErrorDomain", 513, "No permission."});
    EXPECT_NO_THROW((void)manager.createAssetWriter(VideoQuality::medium));
    EXPECT_EQ(files.removeCalls().size(), 2u);
    EXPECT_EQ(log.countPrefix("Failed"), 0u);
}

TEST_F(FileManagerTest, WriterSettingsOfEveryQuality) {
    display.setSize(1512, 982);
    const struct {
        VideoQuality quality;
        int width;
        int height;
    } cases[] = {{VideoQuality::medium, 1280, 720},
                 {VideoQuality::high, 1920, 1080},
                 {VideoQuality::ultra, 2560, 1440},
                 {VideoQuality::screenResolution, 1512, 982}};
    for (const auto& c : cases) {
        log.clear();
        (void)manager.createAssetWriter(c.quality);
        const auto settings = factory.inputSettings();
        ASSERT_GE(settings.size(), 2u);
        const auto& video = std::get<VideoOutputSettingsForWriter>(settings[settings.size() - 2]);
        EXPECT_EQ(video,
                  (VideoOutputSettingsForWriter{
                      "avc1", c.width, c.height, {2000000, "H264_Main_AutoLevel", "CAVLC"}}));
        const auto& audio = std::get<AudioOutputSettingsForWriter>(settings.back());
        EXPECT_EQ(audio, (AudioOutputSettingsForWriter{0x61616320, 2, 44100.0, 128000}));
        EXPECT_EQ(log.count(videoSettingsLine(c.width, c.height)), 1u);
    }
    display.setScreen(std::nullopt);
    (void)manager.createAssetWriter(VideoQuality::screenResolution);
    EXPECT_EQ(log.count(videoSettingsLine(1920, 1080)), 1u);
}

}  // namespace
}  // namespace gb
