// The default microphone: the sound server's default source (PulseAudio or PipeWire's pulse
// server, through libpulse).
//
// Delivered audio: interleaved 32-bit float (AudioSampleFormat::f32) at the source's own sample
// rate, mono for a mono source and stereo otherwise (the server downmixes), in chunks of about
// 20 ms (up to 100 ms while catching up). Each sample's presentation time is the monotonic time
// (linux/monotonic_clock.h) at which its first frame was recorded, taken from the server's timing
// reports (how far its capture had got, and when), so audio that waited in the server while this
// process was stopped or starved keeps the time it was captured at; consecutive chunks follow
// each other without gaps, and the timeline follows the monotonic clock within a few
// milliseconds (slow clock drift is absorbed gradually; lost data makes the timeline jump
// forward). When every buffer is still with the consumers, reading pauses and the server keeps
// the audio until the next chunk arrives.
//
// Threads: defaultPulseMicrophone() blocks the caller for at most its timeout. Devices and inputs
// may be used from any thread. The source records on its own thread and delivers there.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "linux/capture/capture_source.h"
#include "platform/capture.h"

namespace gb::linuxp {

// How long the look-up may take when the server is missing or does not answer.
inline constexpr std::chrono::milliseconds kPulseProbeTimeout{1500};

// What the server told about a source when it was looked up.
struct PulseSourceDescription {
    std::string name;         // the server's identifier, e.g. "alsa_input.pci-0000_00_1f.3"
    std::string description;  // for people, e.g. "Built-in Audio Analog Stereo"
    int sampleRate = 0;       // the source's own rate
    int channels = 0;         // what is delivered: 1 or 2
};

// The server's default source, or null when there is no server, it does not answer within
// `timeout`, it refuses this client, or it has no default source.
[[nodiscard]] CaptureDeviceRef defaultPulseMicrophone(
    std::chrono::milliseconds timeout = kPulseProbeTimeout);

class PulseMicrophoneSource;

// A microphone's input for a capture session; owns the source that records from it.
class PulseMicrophoneInput final : public CaptureInput, public SourceBackedInput {
public:
    explicit PulseMicrophoneInput(PulseSourceDescription source);
    ~PulseMicrophoneInput() override;
    PulseMicrophoneInput(const PulseMicrophoneInput&) = delete;
    PulseMicrophoneInput& operator=(const PulseMicrophoneInput&) = delete;
    PulseMicrophoneInput(PulseMicrophoneInput&&) = delete;
    PulseMicrophoneInput& operator=(PulseMicrophoneInput&&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    [[nodiscard]] CaptureSource& captureSource() override;
    // Opens the stream ahead of the start (see PulseMicrophoneSource); fails as opening does.
    [[nodiscard]] Result<void> prepare();

private:
    std::unique_ptr<PulseMicrophoneSource> source_;
};

class PulseMicrophoneDevice final : public CaptureDevice, public InputMakingDevice {
public:
    explicit PulseMicrophoneDevice(PulseSourceDescription source) : source_(std::move(source)) {}

    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    // The description as the localized name and the server's source name as the unique ID.
    [[nodiscard]] CameraDeviceInfo info() const override;
    // A microphone has no formats to choose; the lock always succeeds and changes nothing.
    [[nodiscard]] Result<void> lockForConfiguration() override { return {}; }
    void setActiveFormat(int /*formatIndex*/) override {}
    void unlockForConfiguration() override {}

    // The input with its stream already open: a source that cannot be recorded fails here.
    [[nodiscard]] Result<std::shared_ptr<CaptureInput>> makeInput() override;
    [[nodiscard]] const PulseSourceDescription& source() const { return source_; }

private:
    const PulseSourceDescription source_;
};

}  // namespace gb::linuxp
