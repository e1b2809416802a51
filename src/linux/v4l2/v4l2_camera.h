// Cameras through Video4Linux2: discovery of the capture nodes under /dev/video*, their
// description (name, stable identifier, busy state, frame sizes) and mmap streaming into pooled
// BGRA frames stamped with the monotonic clock.
//
// Threads: the device's methods may be called from any thread (its state is behind one mutex).
// Each capture runs on its own thread, which never waits for anybody downstream: a frame with no
// free pool slot is dropped and counted. A camera that stalls or vanishes delays nothing else.
// Ownership: the V4l2Calls given to discovery must outlive every device and input made from it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "linux/capture/capture_source.h"
#include "linux/v4l2/v4l2_device_calls.h"
#include "platform/capture.h"

namespace gb::linuxp {

// One size the camera offers, with the pixel format that serves it best and the frame interval
// to ask for (0/0 when the device does not say).
struct V4l2Format {
    uint32_t pixelFormat = 0;
    int32_t width = 0;
    int32_t height = 0;
    uint32_t intervalNumerator = 0;  // seconds per frame = numerator / denominator
    uint32_t intervalDenominator = 0;
    friend bool operator==(const V4l2Format&, const V4l2Format&) = default;
};

// What one reading of a capture node found.
struct V4l2Description {
    std::string card;                 // VIDIOC_QUERYCAP card: the name shown to people
    std::string busInfo;              // VIDIOC_QUERYCAP bus_info
    std::vector<V4l2Format> formats;  // distinct sizes, in the device's enumeration order
    int activeFormatIndex = -1;       // the size VIDIOC_G_FMT reports, -1 when not in the list
    bool busy = false;                // another program holds the capture queue
    bool software = false;            // a loopback or test driver, not a camera of its own
};

// How the camera behind the node at `path` is attached, from the device tree under
// calls.sysfsRoot(): no parent device (or a virtual one) is software; a USB device is fixed or
// removable as its `removable` attribute says (removable when it does not know); a device on
// another bus (platform, PCI) is part of the machine.
[[nodiscard]] CameraAttachment v4l2Attachment(V4l2Calls& calls, const std::string& path,
                                              const V4l2Description& description);

// Reads the node at `path` on an open descriptor: whether it is a streaming video capture node
// (not a metadata, output or memory-to-memory node) and, if so, its description. `probeBusy`
// asks the driver whether another file owns the capture queue.
[[nodiscard]] std::optional<V4l2Description> describeV4l2Node(V4l2Calls& calls, int fd,
                                                              bool probeBusy);

class V4l2CameraDevice final : public CaptureDevice, public InputMakingDevice {
public:
    // Shared with the inputs made from the device (see the .cpp).
    struct State;

    V4l2CameraDevice(V4l2Calls& calls, std::string path, std::optional<std::string> linkName,
                     V4l2Description description);
    ~V4l2CameraDevice() override;
    V4l2CameraDevice(const V4l2CameraDevice&) = delete;
    V4l2CameraDevice& operator=(const V4l2CameraDevice&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    // Re-reads the node: connected when it can be opened, suspended when another program holds
    // it. While our own capture runs the device counts as ours, not suspended. The active format
    // is the one chosen with setActiveFormat, else the one the driver reports.
    [[nodiscard]] CameraDeviceInfo info() const override;
    // Fails with "Camera <name> is in use by another program" when the device is busy.
    [[nodiscard]] Result<void> lockForConfiguration() override;
    // Remembers the size; the next capture applies it (VIDIOC_S_FMT) when it starts.
    void setActiveFormat(int formatIndex) override;
    void unlockForConfiguration() override;

    [[nodiscard]] Result<std::shared_ptr<CaptureInput>> makeInput() override;

    // The format the next capture will ask for.
    [[nodiscard]] V4l2Format chosenFormat() const;

private:
    std::shared_ptr<State> state_;
};

// Every V4L2 video capture device, in node order (/dev/video0 first). Nodes that cannot be
// opened are skipped with one log line each.
[[nodiscard]] std::vector<CaptureDeviceRef> discoverV4l2Cameras(V4l2Calls& calls);

// The cameras the program offers: the V4L2 cameras in discovery order, then the synthetic test
// camera when asked for (`glimmerbox record --test-camera`, GLIMMERBOX_TEST_CAMERA=1).
[[nodiscard]] std::vector<CaptureDeviceRef> discoverCameras(bool includeTestCamera);

}  // namespace gb::linuxp
