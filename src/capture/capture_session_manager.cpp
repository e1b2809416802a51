#include "capture/capture_session_manager.h"

#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "recording/errors.h"
#include "recording/log.h"

namespace gb {
namespace {

// Brackets a batch of session changes; the commit happens on every way out, thrown or not.
class ConfigurationTransaction {
public:
    explicit ConfigurationTransaction(CaptureSession& session) : session_(session) {
        session_.beginConfiguration();
    }
    ~ConfigurationTransaction() { session_.commitConfiguration(); }
    ConfigurationTransaction(const ConfigurationTransaction&) = delete;
    ConfigurationTransaction& operator=(const ConfigurationTransaction&) = delete;

private:
    CaptureSession& session_;
};

// The display identifier of the main screen, or nothing when the description has none.
std::optional<uint32_t> displayIdentifier(const MainScreen& screen) {
    const auto entry = screen.deviceDescription.find(kScreenNumberKey);
    if (entry == screen.deviceDescription.end()) return std::nullopt;
    if (const auto* id = std::get_if<uint32_t>(&entry->second)) return *id;
    return std::nullopt;
}

}  // namespace

CaptureSessionManager::CaptureSessionManager(CaptureFactory& factory, DisplayProvider& display,
                                             Dispatch& dispatch)
    : factory_(factory),
      display_(display),
      screenSession_(factory.makeSession()),
      cameraSession_(factory.makeSession()),
      recordingQueue_(
          dispatch.makeSerialQueue(kRecordingQueueLabel, QualityOfService::userInitiated)),
      cameraManager_(factory) {}

void CaptureSessionManager::setDelegate(std::weak_ptr<CaptureSessionManagerDelegate> delegate) {
    {
        std::lock_guard lock(fieldsMutex_);
        delegate_ = std::move(delegate);
    }
    // Either session losing an input ends the recording; the recorder decides how.
    auto forward = [weakSelf = weak_from_this()](const std::string& reason) {
        const auto self = weakSelf.lock();
        if (!self) return;
        std::shared_ptr<CaptureSessionManagerDelegate> target;
        {
            std::lock_guard lock(self->fieldsMutex_);
            target = self->delegate_.lock();
        }
        if (target) target->captureSessionManagerWasInterrupted(*self, reason);
    };
    screenSession_->setInterruptionHandler(forward);
    cameraSession_->setInterruptionHandler(forward);
}

std::shared_ptr<CaptureOutput> CaptureSessionManager::videoOutput() const {
    std::lock_guard lock(fieldsMutex_);
    return videoOutput_;
}
std::shared_ptr<CaptureOutput> CaptureSessionManager::cameraOutput() const {
    std::lock_guard lock(fieldsMutex_);
    return cameraOutput_;
}
std::shared_ptr<CaptureOutput> CaptureSessionManager::audioOutput() const {
    std::lock_guard lock(fieldsMutex_);
    return audioOutput_;
}
std::shared_ptr<ScreenInput> CaptureSessionManager::screenInput() const {
    std::lock_guard lock(fieldsMutex_);
    return screenInput_;
}
std::shared_ptr<CaptureInput> CaptureSessionManager::micInput() const {
    std::lock_guard lock(fieldsMutex_);
    return micInput_;
}
std::shared_ptr<CaptureInput> CaptureSessionManager::cameraInput() const {
    std::lock_guard lock(fieldsMutex_);
    return cameraInput_;
}

std::shared_ptr<VideoDataOutput> CaptureSessionManager::makeBGRAOutput() {
    std::shared_ptr<VideoDataOutput> output = factory_.makeVideoDataOutput();
    if (!output) return nullptr;
    // Delegate and settings go on before the output joins a session.
    output->setSampleBufferDelegate(weak_from_this(), recordingQueue_);
    output->setVideoSettings(VideoOutputSettings{kPixelFormatBGRA});
    return output;
}

void CaptureSessionManager::setupScreenCapture() {
    CaptureSession& session = *screenSession_;
    ConfigurationTransaction transaction(session);

    const std::optional<MainScreen> screen = display_.mainScreen();
    if (!screen) throw CaptureSessionError::noDisplay();
    const std::optional<uint32_t> displayID = displayIdentifier(*screen);
    if (!displayID) throw CaptureSessionError::noDisplay();

    std::shared_ptr<ScreenInput> screenInput = factory_.makeScreenInput(*displayID);
    if (!screenInput) throw CaptureSessionError::screenCaptureUnavailable();
    {
        std::lock_guard lock(fieldsMutex_);
        screenInput_ = screenInput;
    }
    screenInput->setMinFrameDuration(MediaTime::make(1, kFrameRate));
    if (!session.canAddInput(screenInput)) throw CaptureSessionError::cannotAddScreenInput();
    session.addInput(screenInput);

    const CaptureDeviceRef microphone = factory_.defaultAudioDevice();
    if (!microphone) throw CaptureSessionError::microphoneUnavailable();

    // Whatever goes wrong while attaching the microphone reaches the caller as one error kind.
    std::optional<std::string> micFailure;
    try {
        micFailure = attachMicrophone(microphone);
    } catch (const std::exception& e) {
        micFailure = e.what();
    }
    if (micFailure) throw CaptureSessionError::microphoneSetupFailed(*micFailure);

    std::shared_ptr<VideoDataOutput> videoOutput = makeBGRAOutput();
    {
        std::lock_guard lock(fieldsMutex_);
        videoOutput_ = videoOutput;
    }
    if (!videoOutput || !session.canAddOutput(videoOutput)) {
        throw CaptureSessionError::cannotAddVideoOutput();
    }
    session.addOutput(videoOutput);

    std::shared_ptr<AudioDataOutput> audioOutput = factory_.makeAudioDataOutput();
    if (audioOutput) audioOutput->setSampleBufferDelegate(weak_from_this(), recordingQueue_);
    {
        std::lock_guard lock(fieldsMutex_);
        audioOutput_ = audioOutput;
    }
    if (!audioOutput || !session.canAddOutput(audioOutput)) {
        throw CaptureSessionError::cannotAddAudioOutput();
    }
    session.addOutput(audioOutput);

    logLine("✅ Screen capture session configured successfully");
}

void CaptureSessionManager::setupCamera() {
    if (!overlayEnabled_.load()) return;
    ConfigurationTransaction transaction(*cameraSession_);
    logLine("📷 Camera overlay enabled - setting up camera");

    const CaptureDeviceRef camera = cameraManager_.findBestCamera();
    if (!camera) {
        logLine("❌ No camera available for overlay");
        return;
    }
    const CameraDeviceInfo info = camera->info();
    logLine("📷 Selected camera: " + info.localizedName + " - ID: " + info.uniqueID);

    // An invalid camera is used all the same; the lines tell why it may misbehave.
    const CameraValidation validation = cameraManager_.validateCamera(camera);
    logLine(std::string("📷 Camera validation: ") + (validation.isValid ? "✅ Valid" : "❌ Invalid"));
    for (const std::string& warning : validation.warnings) {
        logLine("⚠️ Camera warning: " + warning);
    }

    // The camera still works in its current format.
    try {
        cameraManager_.configureOptimalFormat(camera, overlayPreset_.load());
    } catch (const CameraConfigurationError& e) {
        logLine("⚠️ Camera format configuration failed: " + e.platformError().textualForm());
    } catch (const EngineError& e) {
        logLine("⚠️ Camera format configuration failed: " + e.caseDescription());
    } catch (const std::exception& e) {
        logLine(std::string("⚠️ Camera format configuration failed: ") + e.what());
    }

    // Whatever goes wrong while attaching the camera reaches the caller as one error kind.
    std::optional<std::string> cameraFailure;
    try {
        cameraFailure = attachCamera(camera);
    } catch (const std::exception& e) {
        cameraFailure = e.what();
    }
    if (cameraFailure) throw CaptureSessionError::cameraSetupFailed(*cameraFailure);
    logLine("📷 Camera setup complete - delegate set to self on queue: " + recordingQueue_->label());
}

std::optional<std::string> CaptureSessionManager::attachMicrophone(
    const CaptureDeviceRef& microphone) {
    CaptureSession& session = *screenSession_;
    Result<std::shared_ptr<CaptureInput>> made = factory_.makeDeviceInput(microphone);
    if (!made) return made.error().localizedDescription;
    std::shared_ptr<CaptureInput> micInput = made.value();
    {
        std::lock_guard lock(fieldsMutex_);
        micInput_ = micInput;
    }
    if (!micInput || !session.canAddInput(micInput)) {
        return CaptureSessionError::cannotAddMicrophoneInput().localizedDescription();
    }
    session.addInput(micInput);
    return std::nullopt;
}

std::optional<std::string> CaptureSessionManager::attachCamera(const CaptureDeviceRef& camera) {
    CaptureSession& session = *cameraSession_;
    Result<std::shared_ptr<CaptureInput>> made = factory_.makeDeviceInput(camera);
    if (!made) return made.error().localizedDescription;
    std::shared_ptr<CaptureInput> cameraInput = made.value();
    {
        std::lock_guard lock(fieldsMutex_);
        cameraInput_ = cameraInput;
    }
    if (!cameraInput || !session.canAddInput(cameraInput)) {
        return CaptureSessionError::cannotAddCameraInput().localizedDescription();
    }
    session.addInput(cameraInput);
    logLine("✅ Camera input added successfully");

    std::shared_ptr<VideoDataOutput> cameraOutput = makeBGRAOutput();
    {
        std::lock_guard lock(fieldsMutex_);
        cameraOutput_ = cameraOutput;
    }
    if (!cameraOutput || !session.canAddOutput(cameraOutput)) {
        return CaptureSessionError::cannotAddCameraOutput().localizedDescription();
    }
    session.addOutput(cameraOutput);
    logLine("✅ Camera output added successfully");
    return std::nullopt;
}

void CaptureSessionManager::cleanup() {
    screenSession_->stopRunning();
    if (overlayEnabled_.load()) cameraSession_->stopRunning();
    for (CaptureSession* session : {screenSession_.get(), cameraSession_.get()}) {
        for (const auto& input : session->inputs()) session->removeInput(input);
        for (const auto& output : session->outputs()) session->removeOutput(output);
    }
    std::lock_guard lock(fieldsMutex_);
    screenInput_.reset();
    micInput_.reset();
    cameraInput_.reset();
    videoOutput_.reset();
    audioOutput_.reset();
    cameraOutput_.reset();
}

void CaptureSessionManager::captureOutput(CaptureOutput& output, const SampleBufferRef& sample) {
    std::shared_ptr<CaptureSessionManagerDelegate> delegate;
    {
        std::lock_guard lock(fieldsMutex_);
        delegate = delegate_.lock();
    }
    if (!delegate) return;  // the recorder is gone: the sample is dropped
    delegate->captureSessionManager(*this, sample, output);
}

}  // namespace gb
