#include "fakes/fake_capture_platform.h"

#include <algorithm>
#include <utility>

namespace gb::fakes {
namespace {

const char* typeName(MediaType type) {
    return type == MediaType::video ? "video" : "audio";
}

}  // namespace

struct FakeCaptureSession::CallScope {
    explicit CallScope(FakeCaptureSession& s) : session(s) {
        if (session.inCall_.fetch_add(1) != 0) session.overlapping_.store(true);
    }
    ~CallScope() { session.inCall_.fetch_sub(1); }
    FakeCaptureSession& session;
};

void FakeCaptureSession::note(std::string entry, bool isChange) {
    journal_.push_back(std::move(entry));
    if (isChange && openTransactions_ == 0) ++changesOutside_;
}

void FakeCaptureSession::beginConfiguration() {
    std::lock_guard lock(mutex_);
    ++openTransactions_;
    note("begin", false);
}

void FakeCaptureSession::commitConfiguration() {
    std::lock_guard lock(mutex_);
    if (openTransactions_ > 0) --openTransactions_;
    note("commit", false);
}

bool FakeCaptureSession::canAddInput(const std::shared_ptr<CaptureInput>& input) {
    std::lock_guard lock(mutex_);
    if (!input) return false;
    const bool answer = input->mediaType() == MediaType::video ? switches_.acceptVideoInput
                                                               : switches_.acceptAudioInput;
    note(std::string("canAddInput ") + typeName(input->mediaType()), false);
    return answer;
}

void FakeCaptureSession::addInput(std::shared_ptr<CaptureInput> input) {
    CallScope scope(*this);
    std::lock_guard lock(mutex_);
    note(std::string("addInput ") + typeName(input->mediaType()), true);
    inputs_.push_back(std::move(input));
}

bool FakeCaptureSession::canAddOutput(const std::shared_ptr<CaptureOutput>& output) {
    std::lock_guard lock(mutex_);
    if (!output) return false;
    const bool answer = output->mediaType() == MediaType::video ? switches_.acceptVideoOutput
                                                                : switches_.acceptAudioOutput;
    note(std::string("canAddOutput ") + typeName(output->mediaType()), false);
    return answer;
}

void FakeCaptureSession::addOutput(std::shared_ptr<CaptureOutput> output) {
    CallScope scope(*this);
    std::lock_guard lock(mutex_);
    note(std::string("addOutput ") + typeName(output->mediaType()), true);
    bool hasDelegate = false;
    if (auto* v = dynamic_cast<FakeVideoDataOutput*>(output.get())) {
        hasDelegate = v->hasDelegate() && v->videoSettings().has_value();
    } else if (auto* a = dynamic_cast<FakeAudioDataOutput*>(output.get())) {
        hasDelegate = a->hasDelegate();
    }
    if (!hasDelegate) ++outputsWithoutDelegate_;
    outputs_.push_back(std::move(output));
}

void FakeCaptureSession::removeInput(const std::shared_ptr<CaptureInput>& input) {
    CallScope scope(*this);
    std::lock_guard lock(mutex_);
    note(std::string("removeInput ") + typeName(input->mediaType()), false);
    std::erase(inputs_, input);
}

void FakeCaptureSession::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    CallScope scope(*this);
    std::lock_guard lock(mutex_);
    note(std::string("removeOutput ") + typeName(output->mediaType()), false);
    std::erase(outputs_, output);
}

void FakeCaptureSession::startRunning() {
    CallScope scope(*this);
    {
        std::lock_guard lock(mutex_);
        running_ = true;
        ++starts_;
        note("start", false);
    }
    if (calls_) calls_->add(name_ + ".startRunning");
}

void FakeCaptureSession::stopRunning() {
    CallScope scope(*this);
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        note("stop", false);
    }
    if (calls_) calls_->add(name_ + ".stopRunning");
}

CameraDeviceInfo FakeCaptureDevice::info() const {
    return lockedCopy(mutex_, info_);
}

Result<void> FakeCaptureDevice::lockForConfiguration() {
    std::lock_guard lock(mutex_);
    ++locks_;
    locked_ = true;
    return {};
}

void FakeCaptureDevice::setActiveFormat(int formatIndex) {
    std::lock_guard lock(mutex_);
    if (!locked_) ++unlockedChanges_;
    activeFormatChanges_.push_back(formatIndex);
    info_.activeFormatIndex = formatIndex;
}

void FakeCaptureDevice::unlockForConfiguration() {
    std::lock_guard lock(mutex_);
    ++unlocks_;
    locked_ = false;
}

FakeCaptureFactory::FakeCaptureFactory()
    : microphone_(std::make_shared<FakeCaptureDevice>(
          cameraInfo("Built-in Microphone", "mic-0", {}), MediaType::audio)) {}

std::shared_ptr<CaptureSession> FakeCaptureFactory::makeSession() {
    auto session = std::make_shared<FakeCaptureSession>();
    std::lock_guard lock(mutex_);
    sessions_.push_back(session);
    return session;
}

std::shared_ptr<ScreenInput> FakeCaptureFactory::makeScreenInput(uint32_t) {
    if (!lockedCopy(mutex_, screenCaptureAllowed_)) return nullptr;
    return std::make_shared<FakeScreenInput>();
}

std::vector<CaptureDeviceRef> FakeCaptureFactory::discoverVideoDevices() {
    std::lock_guard lock(mutex_);
    return {cameras_.begin(), cameras_.end()};
}

Result<std::shared_ptr<CaptureInput>> FakeCaptureFactory::makeDeviceInput(
    const CaptureDeviceRef& device) {
    std::lock_guard lock(mutex_);
    if (!device) return PlatformError{"FakeCapture", -1, "No device"};
    if (const auto failure = inputFailures_.find(device->mediaType());
        failure != inputFailures_.end()) {
        return failure->second;
    }
    return std::shared_ptr<CaptureInput>(std::make_shared<FakeDeviceInput>(device->mediaType()));
}

std::shared_ptr<VideoDataOutput> FakeCaptureFactory::makeVideoDataOutput() {
    auto output = std::make_shared<FakeVideoDataOutput>();
    std::lock_guard lock(mutex_);
    videoOutputs_.push_back(output);
    return output;
}

std::shared_ptr<AudioDataOutput> FakeCaptureFactory::makeAudioDataOutput() {
    auto output = std::make_shared<FakeAudioDataOutput>();
    std::lock_guard lock(mutex_);
    audioOutputs_.push_back(output);
    return output;
}

void FakeCaptureFactory::setDeviceInputFailure(MediaType type, std::optional<PlatformError> error) {
    std::lock_guard lock(mutex_);
    if (error) {
        inputFailures_[type] = *error;
    } else {
        inputFailures_.erase(type);
    }
}

CameraDeviceInfo cameraInfo(std::string name, std::string uniqueID,
                            std::vector<CameraFormat> formats, bool connected, bool suspended,
                            int activeFormatIndex) {
    CameraDeviceInfo info;
    info.localizedName = std::move(name);
    info.uniqueID = std::move(uniqueID);
    info.connected = connected;
    info.suspended = suspended;
    info.activeFormatIndex = formats.empty() ? -1 : activeFormatIndex;
    info.formats = std::move(formats);
    return info;
}

}  // namespace gb::fakes
