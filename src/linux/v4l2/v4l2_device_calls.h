// The few system calls that V4L2 cameras need, behind one interface so that the camera code can
// run against a fake device in tests, and RAII owners for the descriptors and mappings they hand
// out.
//
// Calls follow the system's convention: -1 (or MAP_FAILED) with errno set on failure.
// Threads: every call may be made from any thread; the system implementation is stateless.
// Ownership: whoever holds a V4l2Calls& must not outlive the object behind it; the system one
// lives for the whole process.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace gb::linuxp {

// One entry of /dev/v4l/by-id: a name that stays the same across reboots and re-plugging, and
// the node it currently points at.
struct V4l2DeviceLink {
    std::string name;        // e.g. "usb-Acme_HD_Webcam_0001-video-index0"
    std::string targetPath;  // e.g. "/dev/video0"
};

class V4l2Calls {
public:
    virtual ~V4l2Calls() = default;

    // The /dev/video<N> nodes, ordered by N.
    [[nodiscard]] virtual std::vector<std::string> videoNodePaths() = 0;
    // The stable by-id links with the nodes they resolve to.
    [[nodiscard]] virtual std::vector<V4l2DeviceLink> deviceLinks() = 0;

    [[nodiscard]] virtual int open(const std::string& path, int flags) = 0;
    virtual int close(int fd) = 0;
    // Retried on EINTR by the implementation.
    [[nodiscard]] virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    [[nodiscard]] virtual void* mmap(size_t length, int prot, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    [[nodiscard]] virtual int poll(pollfd* fds, nfds_t count, int timeoutMs) = 0;
    // Where the kernel's device tree is mounted ("/sys"); how a camera is attached is read there.
    [[nodiscard]] virtual std::string sysfsRoot() { return "/sys"; }
};

// The real system calls.
[[nodiscard]] V4l2Calls& systemV4l2Calls();

// Owns a descriptor opened through V4l2Calls and closes it through the same calls.
class V4l2Fd {
public:
    V4l2Fd() = default;
    V4l2Fd(V4l2Calls& calls, int fd) : calls_(&calls), fd_(fd) {}
    V4l2Fd(const V4l2Fd&) = delete;
    V4l2Fd& operator=(const V4l2Fd&) = delete;
    V4l2Fd(V4l2Fd&& other) noexcept : calls_(other.calls_), fd_(other.fd_) { other.fd_ = -1; }
    V4l2Fd& operator=(V4l2Fd&& other) noexcept;
    ~V4l2Fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    void reset();

private:
    V4l2Calls* calls_ = nullptr;
    int fd_ = -1;
};

// Owns one mapping made through V4l2Calls::mmap.
class V4l2Mapping {
public:
    V4l2Mapping() = default;
    V4l2Mapping(V4l2Calls& calls, void* address, size_t length)
        : calls_(&calls), address_(address), length_(length) {}
    V4l2Mapping(const V4l2Mapping&) = delete;
    V4l2Mapping& operator=(const V4l2Mapping&) = delete;
    V4l2Mapping(V4l2Mapping&& other) noexcept
        : calls_(other.calls_), address_(other.address_), length_(other.length_) {
        other.address_ = nullptr;
    }
    V4l2Mapping& operator=(V4l2Mapping&& other) noexcept;
    ~V4l2Mapping() { reset(); }

    [[nodiscard]] const unsigned char* data() const {
        return static_cast<const unsigned char*>(address_);
    }
    [[nodiscard]] size_t length() const { return length_; }
    void reset();

private:
    V4l2Calls* calls_ = nullptr;
    void* address_ = nullptr;
    size_t length_ = 0;
};

// The text of an errno value ("Device or resource busy").
[[nodiscard]] std::string errnoText(int error);

}  // namespace gb::linuxp
