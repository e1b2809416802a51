// A stand-in for the editor in tests: one window with a chosen WM_CLASS that logs every key press
// it receives, one flushed line each, until it is killed or its display goes. Modifier keys
// themselves (Shift, Control, ...) are not logged; they show in the line of the key they modify.
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
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

// The key's line, or nothing for a modifier key.
std::string describeKey(XKeyEvent& event) {
    if (IsModifierKey(XLookupKeysym(&event, 0))) return {};
    std::string line = "key ";
    KeySym keysym = NoSymbol;
    if ((event.state & (ControlMask | Mod1Mask | Mod4Mask)) != 0) {
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
    return line + (name != nullptr ? name : "NoSymbol");
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> options{
        {"--instance", "code"}, {"--class", "Code"}, {"--title", "fake editor"}, {"--log", ""}};
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc || !options.contains(argv[i])) {
            std::fprintf(stderr, "usage: fake_editor [--instance NAME] [--class CLASS] "
                                 "[--title TITLE] [--log FILE]\n");
            return 2;
        }
        options[argv[i]] = argv[i + 1];
    }
    std::FILE* log = options["--log"].empty() ? stdout : std::fopen(options["--log"].c_str(), "w");
    Display* dpy = XOpenDisplay(nullptr);
    if (log == nullptr || dpy == nullptr) {
        std::fprintf(stderr, "fake_editor: cannot open the log or the display\n");
        return 1;
    }
    const Window window = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 640, 480, 0,
                                              BlackPixel(dpy, DefaultScreen(dpy)),
                                              WhitePixel(dpy, DefaultScreen(dpy)));
    XClassHint classHint{options["--instance"].data(), options["--class"].data()};
    XSetClassHint(dpy, window, &classHint);
    XStoreName(dpy, window, options["--title"].c_str());
    const long pid = getpid();
    XChangeProperty(dpy, window, XInternAtom(dpy, "_NET_WM_PID", False), XA_CARDINAL, 32,
                    PropModeReplace, reinterpret_cast<const unsigned char*>(&pid), 1);
    XWMHints hints{};
    hints.flags = InputHint;
    hints.input = True;
    XSetWMHints(dpy, window, &hints);
    XSelectInput(dpy, window, KeyPressMask | StructureNotifyMask | FocusChangeMask);
    XMapWindow(dpy, window);
    for (;;) {  // XNextEvent ends the program when the display goes
        XEvent event;
        XNextEvent(dpy, &event);
        if (event.type == MappingNotify) {
            XRefreshKeyboardMapping(&event.xmapping);
        } else if (event.type == KeyPress) {
            if (const std::string line = describeKey(event.xkey); !line.empty()) {
                std::fprintf(log, "%s\n", line.c_str());
                std::fflush(log);
            }
        }
    }
}
