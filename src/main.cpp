// Entry point: parses the command line and hands over to the composition root.
//   glimmerbox                the tray application
//   glimmerbox record ...     a headless recording (see `glimmerbox record --help`)
//   glimmerbox start|stop|toggle|status   control the running tray application
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "composition_root.h"

namespace {

constexpr const char* kVersion = "Glimmerbox 1.0";

void printUsage(std::FILE* to) {
    std::fputs(
        "Usage: glimmerbox              start the tray application\n"
        "       glimmerbox record ...   record from the terminal (glimmerbox record --help)\n"
        "       glimmerbox start        start recording in the tray application (starting it\n"
        "                               if it does not run)\n"
        "       glimmerbox stop         stop recording and save the file\n"
        "       glimmerbox toggle       start or stop, whichever applies (for a shortcut key)\n"
        "       glimmerbox status       print the state (idle, starting, recording, finishing)\n"
        "                               and, when idle, the last saved file\n"
        "       glimmerbox --version    print the version\n"
        "\n"
        "start, stop and toggle wait until the recording has started or its file is saved,\n"
        "then print the state as status does. Exit status:\n"
        "  0  done\n"
        "  1  refused: already recording, nothing to stop, or a recording is starting or\n"
        "     being saved\n"
        "  2  bad command line\n"
        "  3  Glimmerbox is not running and could not be started (status prints \"not running\")\n"
        "  4  the recording failed (the reason is printed and shown in an alert)\n",
        to);
}

// A launcher may start us with descriptor 0, 1 or 2 closed. The next file or connection opened
// would take that number, and log lines would go into it (the X connection, the movie file).
void occupyStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        const int opened = open("/dev/null", O_RDWR);
        if (opened >= 0 && opened != fd) {
            dup2(opened, fd);
            close(opened);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    // A reader that went away (`| head -1`) ends the log, not the recording.
    signal(SIGPIPE, SIG_IGN);
    // Frames are megabytes each. A fixed mmap threshold hands freed frames straight back to the
    // system instead of letting glibc's adaptive threshold keep them in the heap.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    // Nor should the kernel back them with huge pages: it zeroes 2 MB at the first touch of any
    // byte, and the encoder's padded pictures and a still screen's rows are touched sparsely.
    // Measured: a twentieth of a CPU-second less at every recording's start, for no loss after.
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    gb::installPlatformErrorHandlers();
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return gb::runTray(argc, argv);
    if (args[0] == "record") {
        return gb::runRecord(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    if (args.size() == 1) {
        if (const auto code = gb::runControl(args[0])) return *code;
    }
    if (args[0] == "-h" || args[0] == "--help") {
        printUsage(stdout);
        return 0;
    }
    if (args[0] == "--version") {
        std::puts(kVersion);
        return 0;
    }
    std::fprintf(stderr, "glimmerbox: unknown %s '%s'\n",
                 args[0].rfind('-', 0) == 0 ? "option" : "command", args[0].c_str());
    printUsage(stderr);
    return 2;
}
