#include "recording/recording_file_manager.h"

#include "recording/errors.h"
#include "recording/log.h"

namespace gb {
namespace {

std::string appendingPathComponent(const std::string& folder, const std::string& name) {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

}  // namespace

VideoOutputSettingsForWriter videoSettingsForWriter(Resolution size) {
    return VideoOutputSettingsForWriter{
        "avc1", size.width, size.height, {2'000'000, "H264_Main_AutoLevel", "CAVLC"}};
}

AudioOutputSettingsForWriter audioSettingsForWriter() {
    return AudioOutputSettingsForWriter{0x61616320, 2, 44100.0, 128'000};
}

std::string describe(const VideoOutputSettingsForWriter& s) {
    return "[\"AVVideoCodecKey\": " + s.codec +
           ", \"AVVideoWidthKey\": " + std::to_string(s.width) +
           ", \"AVVideoHeightKey\": " + std::to_string(s.height) +
           ", \"AVVideoCompressionPropertiesKey\": [\"AverageBitRate\": " +
           std::to_string(s.compression.averageBitRate) +
           ", \"ProfileLevel\": " + s.compression.profileLevel +
           ", \"H264EntropyMode\": " + s.compression.entropyMode + "]]";
}

RecordingFileManager::RecordingFileManager(FileSystem& fileSystem, DefaultsStore& defaults,
                                           DateFormatter& dateFormatter,
                                           AssetWriterFactory& writerFactory,
                                           DisplayProvider& display, FolderPicker& folderPicker)
    : fileSystem_(fileSystem),
      defaults_(defaults),
      dateFormatter_(dateFormatter),
      writerFactory_(writerFactory),
      display_(display),
      folderPicker_(folderPicker) {}

std::optional<std::string> RecordingFileManager::generateOutputURL() {
    const std::string fileName =
        "glimmerbox-" + dateFormatter_.format(kOutputDatePattern, dateFormatter_.now()) + ".mov";

    if (const auto custom = defaults_.urlForKey(kCustomSaveLocationKey)) {
        return appendingPathComponent(*custom, fileName);
    }

    const auto documents = fileSystem_.documentsDirectory();
    if (!documents) {
        // No URL at all: createAssetWriter turns this into urlCreationFailed.
        logLine("No Documents folder found for recordings");
        return std::nullopt;
    }
    const std::string folder = appendingPathComponent(*documents, kRecordingsFolderName);
    if (const auto created = fileSystem_.createDirectory(folder, true)) {
        logLine("Created directory: " + folder);
    } else {
        // Not fatal here: the writer creation that follows reports the missing folder.
        logLine("Failed to create directory: " + created.error().textualForm());
    }
    return appendingPathComponent(folder, fileName);
}

WriterBundle RecordingFileManager::createAssetWriter(VideoQuality quality) {
    {
        auto url = generateOutputURL();
        std::lock_guard lock(mutex_);
        currentOutputURL_ = std::move(url);
    }
    const auto url = currentOutputURL();
    if (!url) throw RecordingFileManagerError::urlCreationFailed();
    const std::string& path = *url;

    if (fileSystem_.fileExists(path)) {
        // A file that cannot be removed is left to the writer, which overwrites or refuses it.
        (void)fileSystem_.removeItem(path);
    }

    auto made = writerFactory_.makeWriter(path, FileType::quickTimeMovie);
    if (!made) {
        logLine("Failed to create AVAssetWriter: " + made.error().textualForm());
        throw RecordingFileManagerError::writerCreationFailed(made.error().localizedDescription);
    }
    AssetWriterRef writer = std::move(made.value());
    logLine("Created AVAssetWriter for: " + path);

    const auto videoSettings = videoSettingsForWriter(resolution(quality, display_));
    logLine("Video settings: " + describe(videoSettings));

    // An input the factory could not make is one the writer cannot add.
    AssetWriterInputRef videoInput = writerFactory_.makeInput(MediaType::video, videoSettings);
    if (videoInput) videoInput->setExpectsMediaDataInRealTime(true);
    if (!videoInput || !writer->canAddInput(videoInput)) {
        throw RecordingFileManagerError::cannotAddVideoInput();
    }
    writer->addInput(videoInput);

    AssetWriterInputRef audioInput =
        writerFactory_.makeInput(MediaType::audio, audioSettingsForWriter());
    if (audioInput) audioInput->setExpectsMediaDataInRealTime(true);
    if (!audioInput || !writer->canAddInput(audioInput)) {
        throw RecordingFileManagerError::cannotAddAudioInput();
    }
    writer->addInput(audioInput);

    if (writer->startWriting()) {
        logLine("AVAssetWriter started successfully");
        return WriterBundle{std::move(writer), std::move(videoInput), std::move(audioInput)};
    }
    const auto error = writer->error();
    const std::string text = error ? error->localizedDescription : "Unknown error";
    logLine("AVAssetWriter failed to start writing: " + text);
    logLine("Writer status: " + std::to_string(static_cast<int>(writer->status())));
    throw RecordingFileManagerError::startWritingFailed(text);
}

std::optional<std::string> RecordingFileManager::currentOutputURL() const {
    std::lock_guard lock(mutex_);
    return currentOutputURL_;
}

void RecordingFileManager::clearCurrentOutputURL() {
    std::lock_guard lock(mutex_);
    currentOutputURL_.reset();
}

void RecordingFileManager::chooseSaveLocation() {
    FolderPickerOptions options;
    options.canChooseFiles = false;
    options.canChooseDirectories = true;
    options.allowsMultipleSelection = false;
    options.prompt = "Choose Save Location";
    const FolderPickerResult result = folderPicker_.runModal(options);
    if (result.response != 1 || !result.url) return;
    defaults_.setURL(*result.url, kCustomSaveLocationKey);
    logLine("Save location set to: " + *result.url);
}

}  // namespace gb
