// Entry point: parses the command line and hands over to the composition root.
//   glimmerbox                the tray application
//   glimmerbox record ...     a headless recording (see `glimmerbox record --help`)
#include <malloc.h>

#include <cstdio>
#include <string>
#include <vector>

#include "composition_root.h"

namespace {

void printUsage() {
    std::puts(
        "Usage: glimmerbox              start the tray application\n"
        "       glimmerbox record ...   record from the terminal (glimmerbox record --help)");
}

}  // namespace

int main(int argc, char** argv) {
    // Frames are megabytes each. A fixed mmap threshold hands freed frames straight back to the
    // system instead of letting glibc's adaptive threshold keep them in the heap.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    gb::installPlatformErrorHandlers();
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "record") {
        return gb::runRecord(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    if (!args.empty() && (args[0] == "-h" || args[0] == "--help")) {
        printUsage();
        return 0;
    }
    if (!args.empty() && args[0].rfind("-", 0) != 0) {
        std::fprintf(stderr, "glimmerbox: unknown command '%s'\n", args[0].c_str());
        printUsage();
        return 2;
    }
    return gb::runTray(argc, argv);
}
