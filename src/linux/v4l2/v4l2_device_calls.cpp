#include "linux/v4l2/v4l2_device_calls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace gb::linuxp {
namespace {

namespace fs = std::filesystem;

// "video12" -> 12; -1 for anything else ("video-ctl", "vbi0").
long videoNodeNumber(const std::string& name) {
    constexpr std::string_view prefix = "video";
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return -1;
    long number = 0;
    for (size_t i = prefix.size(); i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') return -1;
        number = number * 10 + (name[i] - '0');
    }
    return number;
}

class SystemV4l2Calls final : public V4l2Calls {
public:
    std::vector<std::string> videoNodePaths() override {
        std::vector<std::pair<long, std::string>> nodes;
        std::error_code ec;
        for (fs::directory_iterator it("/dev", ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            if (const long n = videoNodeNumber(name); n >= 0) {
                nodes.emplace_back(n, it->path().string());
            }
        }
        std::sort(nodes.begin(), nodes.end());
        std::vector<std::string> paths;
        paths.reserve(nodes.size());
        for (auto& node : nodes) paths.push_back(std::move(node.second));
        return paths;
    }

    std::vector<V4l2DeviceLink> deviceLinks() override {
        std::vector<V4l2DeviceLink> links;
        std::error_code ec;
        for (fs::directory_iterator it("/dev/v4l/by-id", ec), end; !ec && it != end;
             it.increment(ec)) {
            std::error_code resolveError;
            const fs::path target = fs::canonical(it->path(), resolveError);
            if (resolveError) continue;  // a dangling link names no node
            links.push_back({it->path().filename().string(), target.string()});
        }
        std::sort(links.begin(), links.end(),
                  [](const auto& a, const auto& b) { return a.name < b.name; });
        return links;
    }

    int open(const std::string& path, int flags) override {
        return ::open(path.c_str(), flags | O_CLOEXEC);
    }
    int close(int fd) override { return ::close(fd); }
    int ioctl(int fd, unsigned long request, void* arg) override {
        int result = 0;
        do {
            result = ::ioctl(fd, request, arg);
        } while (result == -1 && errno == EINTR);
        return result;
    }
    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override {
        return ::mmap(nullptr, length, prot, flags, fd, offset);
    }
    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
    int poll(pollfd* fds, nfds_t count, int timeoutMs) override {
        return ::poll(fds, count, timeoutMs);
    }
};

}  // namespace

V4l2Calls& systemV4l2Calls() {
    static SystemV4l2Calls calls;
    return calls;
}

V4l2Fd& V4l2Fd::operator=(V4l2Fd&& other) noexcept {
    if (this != &other) {
        reset();
        calls_ = other.calls_;
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

void V4l2Fd::reset() {
    if (fd_ >= 0 && calls_) calls_->close(fd_);
    fd_ = -1;
}

V4l2Mapping& V4l2Mapping::operator=(V4l2Mapping&& other) noexcept {
    if (this != &other) {
        reset();
        calls_ = other.calls_;
        address_ = other.address_;
        length_ = other.length_;
        other.address_ = nullptr;
    }
    return *this;
}

void V4l2Mapping::reset() {
    if (address_ && calls_) calls_->munmap(address_, length_);
    address_ = nullptr;
    length_ = 0;
}

std::string errnoText(int error) {
    char buffer[256] = {};
    // GNU strerror_r returns the text, which may or may not be in `buffer`.
    return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace gb::linuxp
