// A scriptable V4L2 device world: /dev/video* nodes with capabilities, formats and sizes, by-id
// links, another program holding a device, frames pushed into mmap streaming, and a camera that
// vanishes mid-capture. Descriptors are real eventfds, so poll() blocks and wakes for real.
// Threads: any thread may call (one mutex guards the world); poll() waits without holding it.
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
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "linux/v4l2/v4l2_device_calls.h"

namespace gb::fakes {

struct FakePixelFormat {
    uint32_t fourcc;
    std::vector<v4l2_frmsize_discrete> sizes;
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
};

class FakeV4l2 final : public linuxp::V4l2Calls {
public:
    ~FakeV4l2() override {
        for (auto& [fd, nodePath] : fds_) ::close(fd);
    }

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

    // Fills a queued buffer and waits until the capture gave it back; false when the device is
    // gone or the buffer did not come back.
    bool pushFrame(const std::string& path, std::vector<uint8_t> bytes, uint32_t flags = 0) {
        std::unique_lock lock(mutex_);
        Node& node = nodes_.at(path);
        const auto ready = [&] { return node.gone || (node.streaming && !node.queued.empty()); };
        if (!requeued_.wait_for(lock, std::chrono::seconds(5), ready) || node.gone) return false;
        const uint32_t index = node.queued.front();
        node.queued.pop_front();
        auto& memory = *node.buffers[index];
        const size_t size = std::min(bytes.size(), memory.size());
        std::memcpy(memory.data(), bytes.data(), size);
        node.done.emplace_back(index, static_cast<uint32_t>(size), flags);
        signal(*node.owner);
        const size_t requeues = node.requeues + 1;
        return requeued_.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return node.requeues >= requeues; });
    }

    // Unplugged: its by-id links go, calls on the node fail with ENODEV and poll reports an error.
    void disappear(const std::string& path) {
        std::lock_guard lock(mutex_);
        Node& node = nodes_.at(path);
        node.gone = true;
        node.config.openErrno = ENODEV;
        std::erase_if(links_, [&](const auto& link) { return link.targetPath == path; });
        for (auto& [fd, nodePath] : fds_) {
            if (nodePath == path) signal(fd);
        }
    }

    // Descriptors and mappings the capture still holds.
    [[nodiscard]] size_t openHandles() const {
        std::lock_guard lock(mutex_);
        return fds_.size() + mappings_.size();
    }
    // A vanished node stays listed; opening it fails with ENODEV.
    std::vector<std::string> videoNodePaths() override {
        std::lock_guard lock(mutex_);
        return order_;
    }
    std::vector<linuxp::V4l2DeviceLink> deviceLinks() override {
        std::lock_guard lock(mutex_);
        return links_;
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
                std::snprintf(reinterpret_cast<char*>(cap->card), sizeof cap->card, "%s",
                              c.card.c_str());
                std::snprintf(reinterpret_cast<char*>(cap->bus_info), sizeof cap->bus_info, "%s",
                              c.busInfo.c_str());
                cap->capabilities = c.deviceCaps;
                return 0;
            }
            case VIDIOC_ENUM_FMT: {
                auto* d = static_cast<v4l2_fmtdesc*>(arg);
                if (d->index >= c.formats.size()) return fail(EINVAL);
                d->pixelformat = c.formats[d->index].fourcc;
                return 0;
            }
            case VIDIOC_ENUM_FRAMESIZES: {
                auto* s = static_cast<v4l2_frmsizeenum*>(arg);
                const auto f = std::find_if(c.formats.begin(), c.formats.end(),
                                            [&](auto& f) { return f.fourcc == s->pixel_format; });
                if (f == c.formats.end() || s->index >= f->sizes.size()) return fail(EINVAL);
                s->type = V4L2_FRMSIZE_TYPE_DISCRETE;
                s->discrete = f->sizes[s->index];
                return 0;
            }
            case VIDIOC_G_FMT: {
                static_cast<v4l2_format*>(arg)->fmt.pix = currentFormat(c);
                return 0;
            }
            case VIDIOC_S_FMT: {
                auto* f = static_cast<v4l2_format*>(arg);
                if (heldElsewhere(node, fd)) return fail(EBUSY);
                node.config.currentFourcc = f->fmt.pix.pixelformat;
                node.config.currentWidth = f->fmt.pix.width;
                node.config.currentHeight = f->fmt.pix.height;
                f->fmt.pix = currentFormat(node.config);
                return 0;
            }
            case VIDIOC_REQBUFS: {
                auto* r = static_cast<v4l2_requestbuffers*>(arg);
                if (heldElsewhere(node, fd)) return fail(EBUSY);
                releaseQueue(node);
                if (r->count == 0) return 0;
                const v4l2_pix_format pix = currentFormat(c);
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
                std::tie(b->index, b->bytesused, b->flags) = node.done.front();
                node.done.pop_front();
                uint64_t one = 0;
                [[maybe_unused]] const ssize_t r = ::read(fd, &one, sizeof one);
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
        const auto index = static_cast<size_t>(offset) / kOffsetStep;
        Node* node = it == fds_.end() ? nullptr : &nodes_.at(it->second);
        if (!node || node->owner != fd || index >= node->buffers.size() ||
            length > node->buffers[index]->size()) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        mappings_[node->buffers[index]->data()] = node->buffers[index];
        return node->buffers[index]->data();
    }

    int munmap(void* address, size_t) override {
        std::lock_guard lock(mutex_);
        return mappings_.erase(address) == 0 ? fail(EINVAL) : 0;
    }

    // A device tree of the test's making; none by default.
    std::string sysfs = "/nonexistent";
    std::string sysfsRoot() override { return sysfs; }

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

    struct Node {
        FakeV4l2Node config;
        bool gone = false;
        std::optional<int> owner;  // the descriptor that owns the capture queue
        // Shared with the mappings: like the kernel's, a mapped buffer outlives its queue.
        std::vector<std::shared_ptr<std::vector<uint8_t>>> buffers;
        std::deque<uint32_t> queued;
        std::deque<std::tuple<uint32_t, uint32_t, uint32_t>> done;  // index, bytes used, flags
        bool streaming = false;
        size_t requeues = 0;
    };

    static bool heldElsewhere(const Node& node, int fd) {
        return node.config.busy || (node.owner && *node.owner != fd) || node.streaming;
    }
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
    static v4l2_pix_format currentFormat(const FakeV4l2Node& c) {
        v4l2_pix_format pix{};
        pix.width = c.currentWidth;
        pix.height = c.currentHeight;
        pix.pixelformat = c.currentFourcc;
        pix.bytesperline = c.currentFourcc == V4L2_PIX_FMT_YUYV ? c.currentWidth * 2 : 0;
        pix.sizeimage = c.currentWidth * c.currentHeight * 2;
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
