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
    // Already there: created and logged again at every recording.
    (void)manager.createAssetWriter(VideoQuality::medium);
    dates.setFormatted("2025-03-14_09-27-00");
    (void)manager.createAssetWriter(VideoQuality::medium);
    EXPECT_EQ(log.count("Created directory: " + kDefaultFolder), 3u);
    EXPECT_EQ(files.createDirectoryCalls().size(), 3u);
}

TEST_F(FileManagerTest, CustomFolderIsUsedAsIsAndASettingOfTheWrongTypeReadsAsAbsent) {
    for (const char* folder : {"/media/videos", "/media/videos/"}) {
        defaults.setURL(folder, "customSaveLocation");
        EXPECT_EQ(manager.generateOutputURL(), "/media/videos/" + kFileName);
    }
    EXPECT_TRUE(files.createDirectoryCalls().empty());
    EXPECT_TRUE(log.lines().empty());
    using Value = FakeDefaultsStore::Value;
    for (const Value& wrong :
         {Value{std::string("/media/videos")}, Value{true}, Value{int64_t{42}}}) {
        defaults.setRaw("customSaveLocation", wrong);
        EXPECT_EQ(manager.generateOutputURL(), kDefaultPath);
    }
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
    EXPECT_EQ(factory.requests().at(1).path, kDefaultPath);
    files.setRemoveError(PlatformError{"NSCocoaErrorDomain", 513, "No permission."});
    EXPECT_NO_THROW((void)manager.createAssetWriter(VideoQuality::medium));
    EXPECT_EQ(files.removeCalls().size(), 2u);
    EXPECT_EQ(log.countPrefix("Failed"), 0u);
}

TEST_F(FileManagerTest, NoDocumentsFolderGivesNoURLAndUrlCreationFailed) {
    files.setDocumentsDirectory(std::nullopt);
    EXPECT_EQ(createFails().kind(), RecordingFileManagerError::Kind::urlCreationFailed);
    EXPECT_EQ(manager.currentOutputURL(), std::nullopt);
    EXPECT_TRUE(factory.requests().empty());
    EXPECT_EQ(log.lines(), Strings{"No Documents folder found for recordings"});
}

TEST_F(FileManagerTest, PreparesAndStartsTheWriterInOrder) {
    auto bundle = manager.createAssetWriter(VideoQuality::medium);
    EXPECT_EQ(manager.currentOutputURL(), kDefaultPath);
    EXPECT_EQ(factory.requests().at(0).fileType, FileType::quickTimeMovie);
    auto writer = factory.lastWriter();
    EXPECT_EQ(writer->status(), AssetWriterStatus::writing);
    EXPECT_TRUE(writer->sessionStarts().empty());  // the timeline starts with the first sample
    EXPECT_EQ(writer->inputs(), (std::vector<std::shared_ptr<AssetWriterInput>>{
                                    bundle.videoInput, bundle.audioInput}));
    EXPECT_EQ(bundle.videoInput->mediaType(), MediaType::video);
    EXPECT_TRUE(factory.lastInput(MediaType::video)->expectsMediaDataInRealTime());
    EXPECT_TRUE(factory.lastInput(MediaType::audio)->expectsMediaDataInRealTime());
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

TEST_F(FileManagerTest, WriterFailuresWithTheirLogLines) {
    factory.setMakeWriterError(PlatformError{"AVFoundationErrorDomain", -11800, "No room"});
    auto error = createFails();
    EXPECT_EQ(error.payload(), "No room");
    EXPECT_EQ(log.lines().back(),
              "Failed to create AVAssetWriter: Error Domain=AVFoundationErrorDomain "
              "Code=-11800 \"No room\"");
    factory.setMakeWriterError(std::nullopt);
    FakeWriterConfig config;
    config.canAddAudioInput = false;  // the video input went in, the writer never started
    factory.setConfig(config);
    EXPECT_EQ(createFails().kind(), RecordingFileManagerError::Kind::cannotAddAudioInput);
    EXPECT_EQ(factory.lastWriter()->inputs().size(), 1u);
    EXPECT_EQ(factory.lastWriter()->startWritingCalls(), 0);
    config.canAddAudioInput = true;
    config.startWritingSucceeds = false;
    config.startWritingError = PlatformError{"AVFoundationErrorDomain", -11823, "Cannot Save"};
    factory.setConfig(config);
    error = createFails();
    EXPECT_EQ(error.errorDescription(), "Failed to start writing: Cannot Save");
    EXPECT_EQ(log.lines().end()[-2], "AVAssetWriter failed to start writing: Cannot Save");
    EXPECT_EQ(log.lines().back(), "Writer status: 3");
}

TEST_F(FileManagerTest, ChosenFolderIsStoredAndLoggedACancelledPickerChangesNothing) {
    picker.setResult({0, "/media/new"});
    manager.chooseSaveLocation();
    picker.setResult({1, std::nullopt});
    manager.chooseSaveLocation();
    EXPECT_EQ(defaults.urlForKey("customSaveLocation"), std::nullopt);
    picker.setResult({1, "/media/videos"});
    manager.chooseSaveLocation();
    EXPECT_EQ(defaults.urlForKey("customSaveLocation"), "/media/videos");
    EXPECT_EQ(log.lines(), Strings{"Save location set to: /media/videos"});
    EXPECT_FALSE(files.directoryExists("/media/videos"));  // neither created nor tested
}

}  // namespace
}  // namespace gb
