// A stand-in for the editor in tests: one window with a chosen WM_CLASS that logs every key press
// it receives, one flushed line each, until SIGTERM or SIGINT. Modifier keys themselves (Shift,
// Control, ...) are not logged; they show in the line of the key they modify.
//
//   fake_editor [--instance NAME] [--class CLASS] [--title TITLE] [--log FILE]
//
// Defaults: instance "code", class "Code", title "fake editor", log to standard output.
// A line reads "key " and then, when Control, Alt or Super is held, the held modifiers and the
// key's unshifted symbol ("key ctrl+shift+p"); otherwise the symbol the key types, Shift applied
// ("key T", "key space", "key Return", "key eacute").
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace {

struct Options {
    std::string instance = "code";
    std::string windowClass = "Code";
    std::string title = "fake editor";
    std::string logPath;
};

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (i + 1 >= argc) return false;
        const std::string value = argv[++i];
        if (flag == "--instance") {
            options.instance = value;
        } else if (flag == "--class") {
            options.windowClass = value;
        } else if (flag == "--title") {
            options.title = value;
        } else if (flag == "--log") {
            options.logPath = value;
        } else {
            return false;
        }
    }
    return true;
}

struct DisplayCloser {
    void operator()(Display* display) const { XCloseDisplay(display); }
};
struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    [[nodiscard]] int get() const { return fd_; }

private:
    int fd_;
};

// The key's line, or nothing for a modifier key.
std::optional<std::string> describeKey(XKeyEvent& event) {
    if (IsModifierKey(XLookupKeysym(&event, 0))) return std::nullopt;
    const unsigned int commandMask = ControlMask | Mod1Mask | Mod4Mask;
    std::string line = "key ";
    KeySym keysym = NoSymbol;
    if ((event.state & commandMask) != 0) {
        if (event.state & ControlMask) line += "ctrl+";
        if (event.state & Mod1Mask) line += "alt+";
        if (event.state & Mod4Mask) line += "super+";
        if (event.state & ShiftMask) line += "shift+";
        keysym = XLookupKeysym(&event, 0);
    } else {
        char text[16];
        XLookupString(&event, text, sizeof text, &keysym, nullptr);
    }
    const char* name = XKeysymToString(keysym);
    line += name != nullptr ? name : "NoSymbol";
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: fake_editor [--instance NAME] [--class CLASS] [--title TITLE] "
                     "[--log FILE]\n");
        return 2;
    }

    std::unique_ptr<std::FILE, FileCloser> logFile;
    std::FILE* log = stdout;
    if (!options.logPath.empty()) {
        logFile.reset(std::fopen(options.logPath.c_str(), "w"));
        if (!logFile) {
            std::perror(options.logPath.c_str());
            return 1;
        }
        log = logFile.get();
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const FileDescriptor signalFd(signalfd(-1, &signals, SFD_CLOEXEC));
    if (signalFd.get() < 0) {
        std::perror("signalfd");
        return 1;
    }

    std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(nullptr));
    if (!display) {
        std::fprintf(stderr, "fake_editor: cannot open display\n");
        return 1;
    }
    Display* dpy = display.get();
    const Window window = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 640, 480, 0,
                                              BlackPixel(dpy, DefaultScreen(dpy)),
                                              WhitePixel(dpy, DefaultScreen(dpy)));

    XClassHint classHint{};
    classHint.res_name = options.instance.data();
    classHint.res_class = options.windowClass.data();
    XSetClassHint(dpy, window, &classHint);
    XStoreName(dpy, window, options.title.c_str());
    const long pid = getpid();
    XChangeProperty(dpy, window, XInternAtom(dpy, "_NET_WM_PID", False), XA_CARDINAL, 32,
                    PropModeReplace, reinterpret_cast<const unsigned char*>(&pid), 1);
    XWMHints hints{};
    hints.flags = InputHint;
    hints.input = True;
    XSetWMHints(dpy, window, &hints);
    XSelectInput(dpy, window, KeyPressMask | StructureNotifyMask | FocusChangeMask);
    XMapWindow(dpy, window);
    XFlush(dpy);

    pollfd fds[2] = {{ConnectionNumber(dpy), POLLIN, 0}, {signalFd.get(), POLLIN, 0}};
    for (;;) {
        while (XPending(dpy) > 0) {
            XEvent event;
            XNextEvent(dpy, &event);
            if (event.type == MappingNotify) {
                XRefreshKeyboardMapping(&event.xmapping);
            } else if (event.type == KeyPress) {
                if (const auto line = describeKey(event.xkey)) {
                    std::fprintf(log, "%s\n", line->c_str());
                    std::fflush(log);
                }
            }
        }
        if (poll(fds, 2, -1) < 0) continue;  // EINTR
        if (fds[1].revents & POLLIN) break;
        if (fds[0].revents & (POLLHUP | POLLERR)) return 1;
    }
    XDestroyWindow(dpy, window);
    return 0;
}
