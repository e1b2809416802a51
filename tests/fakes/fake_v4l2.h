// A scriptable V4L2 device world: /dev/video* nodes with capabilities, formats, sizes and
// intervals, by-id links, another program holding a device, frames pushed by the test into mmap
// streaming, and a camera that vanishes mid-capture.
//
// Descriptors are real eventfds (so poll() blocks and wakes for real): a frame that lands in a
// queued buffer bumps the owning descriptor's counter, DQBUF takes it back. A frame pushed while
// no buffer is queued is lost, as with a real driver.
// Threads: every call may come from any thread (one mutex guards the world); poll() waits
// without holding it.
#pragma once

#include <linux/videodev2.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/v4l2_device_calls.h"

namespace gb::fakes {

struct FakeFrameSize {
    uint32_t type = V4L2_FRMSIZE_TYPE_DISCRETE;
    v4l2_frmsize_stepwise range{};  // discrete: only max_width and max_height count

    static FakeFrameSize discrete(uint32_t w, uint32_t h) {
        return {V4L2_FRMSIZE_TYPE_DISCRETE, {0, w, 0, 0, h, 0}};
    }
    static FakeFrameSize stepwise(uint32_t minW, uint32_t minH, uint32_t maxW, uint32_t maxH,
                                  uint32_t stepW, uint32_t stepH) {
        return {V4L2_FRMSIZE_TYPE_STEPWISE, {minW, maxW, stepW, minH, maxH, stepH}};
    }
};

struct FakePixelFormat {
    FakePixelFormat(uint32_t fourcc, std::vector<FakeFrameSize> sizes)
        : fourcc(fourcc), sizes(std::move(sizes)) {}
    uint32_t fourcc;
    std::vector<FakeFrameSize> sizes;
    // Frame intervals per size; a size without an entry makes ENUM_FRAMEINTERVALS fail.
    std::map<std::pair<uint32_t, uint32_t>, std::vector<v4l2_fract>> intervals;
};

struct FakeV4l2Node {
    std::string path = "/dev/video0";
    std::string card = "HD Webcam";
    std::string busInfo = "usb-0000:00:14.0-1";
    uint32_t deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    int openErrno = 0;  // open() fails with this when set
    std::vector<FakePixelFormat> formats{};
    uint32_t currentFourcc = V4L2_PIX_FMT_YUYV;  // what VIDIOC_G_FMT answers; S_FMT sets it
    uint32_t currentWidth = 640;
    uint32_t currentHeight = 480;
    bool busy = false;                 // another program owns the capture queue
    uint32_t bytesPerLinePadding = 0;  // extra bytes at the end of each YUYV row
};

class FakeV4l2 final : public linuxp::V4l2Calls {
public:
    FakeV4l2() = default;
    FakeV4l2(const FakeV4l2&) = delete;
    FakeV4l2& operator=(const FakeV4l2&) = delete;
    ~FakeV4l2() override {
        for (auto& [fd, nodePath] : fds_) ::close(fd);
    }

    // ---- scripting ----------------------------------------------------------------------------
    void addNode(FakeV4l2Node node) {
        std::lock_guard lock(mutex_);
        const std::string path = node.path;
        nodes_[path].config = std::move(node);
        order_.push_back(path);
    }
    void addLink(std::string name, std::string target) {
        std::lock_guard lock(mutex_);
        links_.push_back({std::move(name), std::move(target)});
    }
    void setBusy(const std::string& path, bool busy) {
        std::lock_guard lock(mutex_);
        nodes_.at(path).config.busy = busy;
    }

    // Hands a frame to the device. False when it was lost (not streaming, or no queued buffer).
    bool pushFrame(const std::string& path, std::vector<uint8_t> bytes, uint32_t flags = 0) {
        std::lock_guard lock(mutex_);
        Node& node = nodes_.at(path);
        if (node.gone || !node.streaming || node.queued.empty()) return false;
        const uint32_t index = node.queued.front();
        node.queued.pop_front();
        auto& memory = *node.buffers[index];
        const size_t size = std::min(bytes.size(), memory.size());
        std::memcpy(memory.data(), bytes.data(), size);
        node.done.push_back({index, static_cast<uint32_t>(size), flags});
        signal(*node.owner);
        return true;
    }

    // The camera is unplugged: its node is gone, every call on it fails with ENODEV and poll
    // reports an error.
    void disappear(const std::string& path) {
        std::lock_guard lock(mutex_);
        Node& node = nodes_.at(path);
        node.gone = true;
        node.config.openErrno = ENODEV;
        for (auto& [fd, nodePath] : fds_) {
            if (nodePath == path) signal(fd);
        }
    }

    // ---- observations -------------------------------------------------------------------------
    [[nodiscard]] size_t openDescriptors() const {
        std::lock_guard lock(mutex_);
        return fds_.size();
    }
    [[nodiscard]] size_t activeMappings() const {
        std::lock_guard lock(mutex_);
        return mappings_.size();
    }
    [[nodiscard]] bool streaming(const std::string& path) const {
        std::lock_guard lock(mutex_);
        return nodes_.at(path).streaming;
    }
    // The last format set with VIDIOC_S_FMT.
    [[nodiscard]] std::optional<v4l2_pix_format> lastSetFormat(const std::string& path) const {
        std::lock_guard lock(mutex_);
        return nodes_.at(path).lastSetFormat;
    }
    // Waits until the capture has given back `count` buffers in all (VIDIOC_QBUF after DQBUF).
    bool waitForRequeues(const std::string& path, size_t count,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return requeued_.wait_for(lock, timeout, [&] { return nodes_.at(path).requeues >= count; });
    }
    // Waits until a buffer is queued, so that the next frame will not be lost.
    bool waitForQueuedBuffer(const std::string& path,
                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return requeued_.wait_for(lock, timeout, [&] {
            const Node& n = nodes_.at(path);
            return n.streaming && !n.queued.empty();
        });
    }

    // ---- V4l2Calls ----------------------------------------------------------------------------
    std::vector<std::string> videoNodePaths() override {
        std::lock_guard lock(mutex_);
        std::vector<std::string> paths;
        for (const auto& path : order_) {
            if (!nodes_.at(path).gone) paths.push_back(path);
        }
        return paths;
    }
    std::vector<linuxp::V4l2DeviceLink> deviceLinks() override {
        std::lock_guard lock(mutex_);
        std::vector<linuxp::V4l2DeviceLink> links;
        for (const auto& link : links_) {
            auto it = nodes_.find(link.targetPath);
            if (it == nodes_.end() || !it->second.gone) links.push_back(link);
        }
        return links;
    }

    int open(const std::string& path, int) override {
        std::lock_guard lock(mutex_);
        auto it = nodes_.find(path);
        if (it == nodes_.end()) return fail(ENOENT);
        if (it->second.config.openErrno != 0) return fail(it->second.config.openErrno);
        const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
        if (fd < 0) return -1;
        fds_[fd] = path;
        return fd;
    }

    int close(int fd) override {
        std::lock_guard lock(mutex_);
        auto it = fds_.find(fd);
        if (it == fds_.end()) return fail(EBADF);
        Node& node = nodes_.at(it->second);
        if (node.owner == fd) releaseQueue(node);
        fds_.erase(it);
        ::close(fd);
        return 0;
    }

    int ioctl(int fd, unsigned long request, void* arg) override {
        std::lock_guard lock(mutex_);
        auto it = fds_.find(fd);
        if (it == fds_.end()) return fail(EBADF);
        Node& node = nodes_.at(it->second);
        if (node.gone) return fail(ENODEV);
        const FakeV4l2Node& c = node.config;
        switch (request) {
            case VIDIOC_QUERYCAP: {
                auto* cap = static_cast<v4l2_capability*>(arg);
                *cap = {};
                copyText(cap->driver, sizeof cap->driver, "fake");
                copyText(cap->card, sizeof cap->card, c.card);
                copyText(cap->bus_info, sizeof cap->bus_info, c.busInfo);
                cap->device_caps = c.deviceCaps;
                cap->capabilities = c.deviceCaps | V4L2_CAP_DEVICE_CAPS;
                return 0;
            }
            case VIDIOC_ENUM_FMT: {
                auto* d = static_cast<v4l2_fmtdesc*>(arg);
                if (d->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || d->index >= c.formats.size()) {
                    return fail(EINVAL);
                }
                d->pixelformat = c.formats[d->index].fourcc;
                return 0;
            }
            case VIDIOC_ENUM_FRAMESIZES: {
                auto* s = static_cast<v4l2_frmsizeenum*>(arg);
                const FakePixelFormat* f = findFormat(c, s->pixel_format);
                if (!f || s->index >= f->sizes.size()) return fail(EINVAL);
                const FakeFrameSize& size = f->sizes[s->index];
                s->type = size.type;
                if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
                    s->discrete = {size.range.max_width, size.range.max_height};
                } else {
                    if (s->index != 0) return fail(EINVAL);
                    s->stepwise = size.range;
                }
                return 0;
            }
            case VIDIOC_ENUM_FRAMEINTERVALS: {
                auto* i = static_cast<v4l2_frmivalenum*>(arg);
                const FakePixelFormat* f = findFormat(c, i->pixel_format);
                if (!f) return fail(EINVAL);
                auto found = f->intervals.find({i->width, i->height});
                if (found == f->intervals.end() || i->index >= found->second.size()) {
                    return fail(EINVAL);
                }
                i->type = V4L2_FRMIVAL_TYPE_DISCRETE;
                i->discrete = found->second[i->index];
                return 0;
            }
            case VIDIOC_G_FMT: {
                auto* f = static_cast<v4l2_format*>(arg);
                if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return fail(EINVAL);
                f->fmt.pix = currentFormat(c);
                return 0;
            }
            case VIDIOC_S_FMT: {
                auto* f = static_cast<v4l2_format*>(arg);
                if (c.busy || (node.owner && *node.owner != fd)) return fail(EBUSY);
                if (node.streaming) return fail(EBUSY);
                // Taken as asked: the capture only asks for what the device listed.
                node.config.currentFourcc = f->fmt.pix.pixelformat;
                node.config.currentWidth = f->fmt.pix.width;
                node.config.currentHeight = f->fmt.pix.height;
                f->fmt.pix = currentFormat(node.config);
                node.lastSetFormat = f->fmt.pix;
                return 0;
            }
            case VIDIOC_S_PARM:
                return 0;
            case VIDIOC_REQBUFS: {
                auto* r = static_cast<v4l2_requestbuffers*>(arg);
                if (r->memory != V4L2_MEMORY_MMAP) return fail(EINVAL);
                if (c.busy || (node.owner && *node.owner != fd)) return fail(EBUSY);
                if (node.streaming) return fail(EBUSY);
                releaseQueue(node);
                if (r->count == 0) return 0;
                const v4l2_pix_format pix = currentFormat(c);
                node.buffers.clear();
                for (uint32_t i = 0; i < r->count; ++i) {
                    node.buffers.push_back(std::make_shared<std::vector<uint8_t>>(pix.sizeimage));
                }
                node.owner = fd;
                return 0;
            }
            case VIDIOC_QUERYBUF: {
                auto* b = static_cast<v4l2_buffer*>(arg);
                if (node.owner != fd || b->index >= node.buffers.size()) return fail(EINVAL);
                b->length = static_cast<uint32_t>(node.buffers[b->index]->size());
                b->m.offset = b->index * kOffsetStep;
                return 0;
            }
            case VIDIOC_QBUF: {
                auto* b = static_cast<v4l2_buffer*>(arg);
                if (node.owner != fd || b->index >= node.buffers.size()) return fail(EINVAL);
                node.queued.push_back(b->index);
                if (node.streaming) ++node.requeues;
                requeued_.notify_all();
                return 0;
            }
            case VIDIOC_DQBUF: {
                auto* b = static_cast<v4l2_buffer*>(arg);
                if (node.owner != fd || !node.streaming) return fail(EINVAL);
                if (node.done.empty()) return fail(EAGAIN);
                const Done d = node.done.front();
                node.done.pop_front();
                uint64_t one = 0;
                [[maybe_unused]] const ssize_t r = ::read(fd, &one, sizeof one);
                b->index = d.index;
                b->bytesused = d.bytesUsed;
                b->flags = d.flags;
                b->length = static_cast<uint32_t>(node.buffers[d.index]->size());
                return 0;
            }
            case VIDIOC_STREAMON:
                if (node.owner != fd) return fail(EBUSY);
                node.streaming = true;
                requeued_.notify_all();
                return 0;
            case VIDIOC_STREAMOFF:
                if (node.owner != fd) return fail(EINVAL);
                stopStreaming(node);
                return 0;
            default:
                return fail(ENOTTY);
        }
    }

    void* mmap(size_t length, int, int, int fd, off_t offset) override {
        std::lock_guard lock(mutex_);
        auto it = fds_.find(fd);
        if (it == fds_.end()) {
            errno = EBADF;
            return MAP_FAILED;
        }
        Node& node = nodes_.at(it->second);
        const auto index = static_cast<size_t>(offset) / kOffsetStep;
        if (node.owner != fd || index >= node.buffers.size() ||
            length > node.buffers[index]->size()) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        void* address = node.buffers[index]->data();
        mappings_[address] = node.buffers[index];
        return address;
    }

    int munmap(void* address, size_t) override {
        std::lock_guard lock(mutex_);
        if (mappings_.erase(address) == 0) return fail(EINVAL);
        return 0;
    }

    int poll(pollfd* fds, nfds_t count, int timeoutMs) override {
        const int ready = ::poll(fds, count, timeoutMs);
        if (ready < 0) return ready;
        std::lock_guard lock(mutex_);
        int result = 0;
        for (nfds_t i = 0; i < count; ++i) {
            auto it = fds_.find(fds[i].fd);
            if (it != fds_.end() && nodes_.at(it->second).gone) {
                fds[i].revents |= POLLERR | POLLHUP;
            }
            if (fds[i].revents != 0) ++result;
        }
        return result;
    }

private:
    static constexpr uint32_t kOffsetStep = 0x10000;

    struct Done {
        uint32_t index;
        uint32_t bytesUsed;
        uint32_t flags;
    };
    struct Node {
        FakeV4l2Node config;
        bool gone = false;
        std::optional<int> owner;  // the descriptor that owns the capture queue
        // Shared with the mappings: like the kernel's, a mapped buffer outlives its queue.
        std::vector<std::shared_ptr<std::vector<uint8_t>>> buffers;
        std::deque<uint32_t> queued;
        std::deque<Done> done;
        bool streaming = false;
        size_t requeues = 0;
        std::optional<v4l2_pix_format> lastSetFormat;
    };

    static int fail(int error) {
        errno = error;
        return -1;
    }
    static void signal(int fd) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t w = ::write(fd, &one, sizeof one);
    }
    static void drain(int fd) {
        uint64_t value = 0;
        while (::read(fd, &value, sizeof value) > 0) {
        }
    }
    static void copyText(__u8* target, size_t capacity, const std::string& text) {
        std::memset(target, 0, capacity);
        std::memcpy(target, text.data(), std::min(text.size(), capacity - 1));
    }
    static const FakePixelFormat* findFormat(const FakeV4l2Node& c, uint32_t fourcc) {
        for (const auto& f : c.formats) {
            if (f.fourcc == fourcc) return &f;
        }
        return nullptr;
    }
    static v4l2_pix_format currentFormat(const FakeV4l2Node& c) {
        v4l2_pix_format pix{};
        pix.width = c.currentWidth;
        pix.height = c.currentHeight;
        pix.pixelformat = c.currentFourcc;
        pix.field = V4L2_FIELD_NONE;
        if (c.currentFourcc == V4L2_PIX_FMT_YUYV) {
            pix.bytesperline = c.currentWidth * 2 + c.bytesPerLinePadding;
            pix.sizeimage = pix.bytesperline * c.currentHeight;
        } else {
            pix.sizeimage = c.currentWidth * c.currentHeight * 2;
        }
        return pix;
    }
    void stopStreaming(Node& node) {
        node.streaming = false;
        node.queued.clear();
        node.done.clear();
        if (node.owner) drain(*node.owner);
    }
    void releaseQueue(Node& node) {
        stopStreaming(node);
        node.buffers.clear();
        node.owner.reset();
    }

    mutable std::mutex mutex_;
    std::condition_variable requeued_;
    std::map<std::string, Node> nodes_;          // guarded by mutex_
    std::vector<std::string> order_;             // guarded by mutex_
    std::vector<linuxp::V4l2DeviceLink> links_;  // guarded by mutex_
    std::map<int, std::string> fds_;             // descriptor -> node path; guarded by mutex_
    std::map<void*, std::shared_ptr<std::vector<uint8_t>>> mappings_;  // guarded by mutex_
};

}  // namespace gb::fakes
