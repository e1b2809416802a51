#include "linux/camera_access.h"

#include <fcntl.h>

#include <cerrno>

namespace gb::linuxp {

bool cameraAccessGranted(V4l2Calls& calls) {
    const std::vector<std::string> paths = calls.videoNodePaths();
    for (const std::string& path : paths) {
        const int fd = calls.open(path, O_RDWR | O_NONBLOCK);
        if (fd >= 0) {
            V4l2Fd owner(calls, fd);
            return true;
        }
        if (errno != EACCES && errno != EPERM) return true;
    }
    // With no nodes at all there is no camera to refuse.
    return paths.empty();
}

}  // namespace gb::linuxp
