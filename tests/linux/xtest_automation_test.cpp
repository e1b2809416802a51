// The Linux editor automation against a real X server: a private Xvfb, the fake_editor helper as
// the editor, and (for activation through a window manager) openbox.
// gtest first: Xlib defines macros (None, Bool) that clash with its names.
#include <gtest/gtest.h>

#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "automation/system_events_scripts.h"
#include "automation/vscode_integration.h"
#include "fakes/test_environment.h"
#include "fakes/xvfb_server.h"
#include "linux/portable/thread_dispatch.h"
#include "linux/x11_accessibility.h"
#include "linux/x11_application_finder.h"
#include "linux/xtest_script_runner.h"

namespace gb::linuxp {
namespace {

using fakes::ChildProcess;
using fakes::eventually;
using fakes::toolPath;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

struct DisplayCloser {
    void operator()(Display* display) const { XCloseDisplay(display); }
};

// A private X server with one fake editor window on it, and the test's own connection.
class XAutomationTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(toolPath("fake_editor")))
            << "build the fake_editor tool next to " << toolPath("");
        ASSERT_NE(xvfb_, nullptr);
        display_.reset(XOpenDisplay(name().c_str()));
        ASSERT_NE(display_, nullptr);
        finder = std::make_unique<X11ApplicationFinder>(name());
        runner = std::make_unique<XTestScriptRunner>(name());
    }

    // Starts a fake editor with the stable editor's window class and finds it (null if never).
    RunningApplicationRef startCode() {
        startEditor("Code", "code.log");
        const auto found = waitForApplications(kStable, 1);
        return found.size() == 1 ? found.front() : nullptr;
    }

    // Starts a fake editor with this WM_CLASS class; its key log is `logName` in the scratch dir.
    ChildProcess& startEditor(const std::string& windowClass, const std::string& logName) {
        ChildProcess::Options options;
        options.environment = {{"DISPLAY", name()}};
        editors_.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{toolPath("fake_editor"), "--class", windowClass, "--log",
                                     scratch_ / logName},
            options));
        return *editors_.back();
    }

    std::vector<std::string> keyLog(const std::string& logName) const {
        return readLines(scratch_ / logName);
    }

    // Waits until the log has `count` lines and returns them (fewer on timeout).
    std::vector<std::string> waitForKeys(const std::string& logName, size_t count) const {
        std::vector<std::string> lines;
        eventually([&] {
            lines = keyLog(logName);
            return lines.size() >= count;
        });
        return lines;
    }

    // Waits until the finder reports exactly `count` applications for the identifier.
    std::vector<RunningApplicationRef> waitForApplications(const std::string& bundleIdentifier,
                                                           size_t count) {
        std::vector<RunningApplicationRef> found;
        eventually([&] {
            found = finder->runningApplications(bundleIdentifier);
            return found.size() == count;
        });
        return found;
    }

    Window focusedWindow() const {
        Window focus = None;
        int revert = 0;
        XGetInputFocus(display_.get(), &focus, &revert);
        return focus;
    }

    // The top-level window whose WM_CLASS class is `windowClass` (the client, not a frame).
    std::optional<Window> windowOfClass(const std::string& windowClass) const {
        return findClass(DefaultRootWindow(display_.get()), windowClass);
    }

    [[nodiscard]] const std::string& name() const { return xvfb_->displayName(); }

    std::unique_ptr<fakes::XvfbServer> xvfb_ = fakes::XvfbServer::start();
    fakes::TempDirectory scratch_;
    std::unique_ptr<Display, DisplayCloser> display_;
    std::unique_ptr<X11ApplicationFinder> finder;
    std::unique_ptr<XTestScriptRunner> runner;
    std::vector<std::unique_ptr<ChildProcess>> editors_;

private:
    std::optional<Window> findClass(Window parent, const std::string& windowClass) const {
        Window root = None;
        Window grandParent = None;
        Window* children = nullptr;
        unsigned int count = 0;
        if (!XQueryTree(display_.get(), parent, &root, &grandParent, &children, &count)) {
            return std::nullopt;
        }
        std::optional<Window> found;
        for (unsigned int i = 0; i < count && !found; ++i) {
            XClassHint hint{};
            if (XGetClassHint(display_.get(), children[i], &hint)) {
                if (windowClass == hint.res_class) found = children[i];
                XFree(hint.res_name);
                XFree(hint.res_class);
            }
            if (!found) found = findClass(children[i], windowClass);
        }
        if (children != nullptr) XFree(children);
        return found;
    }
};

const std::vector<std::string> kTypedCommand{
    "key T", "key o",     "key g", "key g", "key l", "key e", "key space", "key S",
    "key c", "key r",     "key e", "key e", "key n", "key c", "key a",     "key s",
    "key t", "key space", "key M", "key o", "key d", "key e"};

TEST_F(XAutomationTest, FinderFindsTheEditorByItsWindowClass) {
    startEditor("Code", "code.log");
    const auto stable = waitForApplications(kStable, 1);
    ASSERT_EQ(stable.size(), 1u);
    EXPECT_EQ(stable.front()->bundleIdentifier(), kStable);
    EXPECT_TRUE(finder->runningApplications(kInsiders).empty());
    EXPECT_TRUE(finder->runningApplications(kOss).empty());
    EXPECT_TRUE(finder->runningApplications("com.apple.Terminal").empty());

    startEditor("VSCodium", "codium.log");
    startEditor("Code - Insiders", "insiders.log");
    EXPECT_EQ(waitForApplications(kOss, 1).size(), 1u);
    EXPECT_EQ(waitForApplications(kInsiders, 1).size(), 1u);
    EXPECT_EQ(finder->runningApplications(kStable).size(), 1u);

    // An editor that quits is no longer found.
    editors_.front()->stop();
    EXPECT_TRUE(waitForApplications(kStable, 0).empty());
}

TEST_F(XAutomationTest, TheThreeScriptsTypeThePaletteCommandIntoTheEditor) {
    const auto editor = startCode();
    ASSERT_NE(editor, nullptr);
    const std::optional<Window> window = windowOfClass("Code");
    ASSERT_TRUE(window);

    // No window manager here: activation gives the window the focus itself.
    ASSERT_TRUE(editor->activate());
    ASSERT_TRUE(eventually([&] { return focusedWindow() == *window; }));

    for (const std::string& script :
         {std::string(scripts::kCommandPalette), scripts::typeTextScript("Toggle Screencast Mode"),
          scripts::pressKeyScript(36)}) {
        const ScriptOutcome outcome = runner->run(script);
        EXPECT_EQ(outcome.kind, ScriptOutcome::Kind::succeeded) << outcome.errorDescription;
    }
    std::vector<std::string> expected{"key ctrl+shift+p"};
    expected.insert(expected.end(), kTypedCommand.begin(), kTypedCommand.end());
    expected.push_back("key Return");
    EXPECT_EQ(waitForKeys("code.log", expected.size()), expected);
}

TEST_F(XAutomationTest, ScriptsItCannotRunFailAndTypeNothing) {
    const auto editor = startCode();
    ASSERT_NE(editor, nullptr);
    ASSERT_TRUE(editor->activate());

    const std::vector<std::string> refused{
        "tell application \"Finder\"\n    keystroke \"x\"\nend tell",
        "tell application \"System Events\"\n    keystroke \"p\" using {option down}\nend tell",
        "tell application \"System Events\"\n    keystroke \"unterminated\nend tell",
        scripts::pressKeyScript(117),  // forward delete: not a key this runner knows
        std::string(scripts::kCommandPalette) + "\n    key code 36"};
    for (const std::string& script : refused) {
        const ScriptOutcome outcome = runner->run(script);
        EXPECT_EQ(outcome.kind, ScriptOutcome::Kind::failed) << script;
        EXPECT_FALSE(outcome.errorDescription.empty());
    }
    // Terminal detection is understood and sends nothing.
    EXPECT_EQ(runner->run(std::string(scripts::kTerminalDetection)).kind,
              ScriptOutcome::Kind::succeeded);

    // The next key that does go out is the first one the editor sees.
    ASSERT_EQ(runner->run(scripts::pressKeyScript(53)).kind, ScriptOutcome::Kind::succeeded);
    EXPECT_EQ(waitForKeys("code.log", 1), std::vector<std::string>{"key Escape"});
}

// How many keycodes have no symbol at all in the server's map.
int emptyKeycodes(Display* display) {
    XkbDescPtr keyboard = XkbGetMap(display, XkbKeySymsMask, XkbUseCoreKbd);
    int empty = 0;
    for (int keycode = keyboard->min_key_code; keycode <= keyboard->max_key_code; ++keycode) {
        if (XkbKeyNumGroups(keyboard, keycode) == 0) ++empty;
    }
    XkbFreeKeyboard(keyboard, 0, True);
    return empty;
}

TEST_F(XAutomationTest, CharactersMissingFromTheKeyboardAreTypedOnALentKey) {
    const auto editor = startCode();
    ASSERT_NE(editor, nullptr);
    ASSERT_TRUE(editor->activate());
    const int emptyBefore = emptyKeycodes(display_.get());

    // é and ж are on no key of the US layout; the backslash is escaped in the script.
    const ScriptOutcome outcome = runner->run(scripts::typeTextScript("aé\\\\ж"));
    ASSERT_EQ(outcome.kind, ScriptOutcome::Kind::succeeded) << outcome.errorDescription;
    EXPECT_EQ(waitForKeys("code.log", 4),
              (std::vector<std::string>{"key a", "key eacute", "key backslash", "key U0436"}));
    EXPECT_EQ(emptyKeycodes(display_.get()), emptyBefore);  // every lent keycode came back
}

TEST_F(XAutomationTest, AccessibilityNeedsXTestAndNoWaylandSession) {
    EXPECT_TRUE(isAccessibilityTrustedX11(name()));
    EXPECT_FALSE(isAccessibilityTrustedX11(":32767"));  // no such server
}

// With a window manager, activation goes through it.
class XAutomationWithWindowManagerTest : public XAutomationTest {
protected:
    void SetUp() override {
        XAutomationTest::SetUp();
        if (HasFatalFailure()) return;
        ChildProcess::Options options;
        options.environment = {{"DISPLAY", name()}};
        openbox_.emplace(std::vector<std::string>{"openbox", "--sm-disable"}, options);
        // Openbox announces itself before it manages new windows, and a window mapped in
        // between stays unmanaged: map probe windows until one is managed.
        Display* display = display_.get();
        const bool managing = eventually(
            [&] {
                const Window probe =
                    XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 10, 10, 0, 0, 0);
                XMapWindow(display, probe);
                XSync(display, False);
                const bool managed = eventually(
                    [&] {
                        const std::vector<Window> clients = clientList();
                        return std::find(clients.begin(), clients.end(), probe) != clients.end();
                    },
                    std::chrono::milliseconds(500));
                XDestroyWindow(display, probe);
                XSync(display, False);
                return managed;
            },
            std::chrono::seconds(10));
        ASSERT_TRUE(managing) << "openbox did not start";
    }

    std::vector<Window> clientList() const {
        Atom type = None;
        int format = 0;
        unsigned long count = 0;
        unsigned long remaining = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(display_.get(), DefaultRootWindow(display_.get()),
                           XInternAtom(display_.get(), "_NET_CLIENT_LIST", False), 0, 1024, False,
                           XA_WINDOW, &type, &format, &count, &remaining, &data);
        std::vector<Window> windows;
        if (data != nullptr && format == 32) {
            const auto* items = reinterpret_cast<const Window*>(data);
            windows.assign(items, items + count);
        }
        if (data != nullptr) XFree(data);
        return windows;
    }
    void TearDown() override {
        editors_.clear();
        openbox_.reset();
    }

    std::optional<ChildProcess> openbox_;
};

TEST_F(XAutomationWithWindowManagerTest, ActivationBringsTheEditorBackToTheKeyboard) {
    const auto editor = startCode();
    ASSERT_NE(editor, nullptr);
    const std::optional<Window> code = windowOfClass("Code");
    ASSERT_TRUE(code);

    // Another window opened later takes the focus from it.
    startEditor("Other", "other.log");
    std::optional<Window> other;
    ASSERT_TRUE(eventually([&] { return (other = windowOfClass("Other")).has_value(); }));
    ASSERT_TRUE(eventually([&] { return focusedWindow() == *other; }));

    ASSERT_TRUE(editor->activate());
    ASSERT_TRUE(eventually([&] { return focusedWindow() == *code; }));
    ASSERT_EQ(runner->run(scripts::pressKeyScript(36)).kind, ScriptOutcome::Kind::succeeded);
    EXPECT_EQ(waitForKeys("code.log", 1), std::vector<std::string>{"key Return"});
    EXPECT_TRUE(keyLog("other.log").empty());
}

TEST_F(XAutomationWithWindowManagerTest, ScreencastModeIsToggledInTheEditorFromTheBackground) {
    TokenSleeper sleeper;
    VSCodeIntegration integration(*finder, *runner, sleeper);
    ThreadPoolExecutor background(2);
    const auto inBackground = [&](bool (VSCodeIntegration::*sequence)(const CancellationToken&)) {
        std::promise<bool> done;
        background.async([&] { done.set_value((integration.*sequence)(CancellationToken{})); });
        return done.get_future().get();
    };

    startEditor("Code", "code.log");
    ASSERT_EQ(waitForApplications(kStable, 1).size(), 1u);
    startEditor("Other", "other.log");
    ASSERT_TRUE(eventually([&] { return windowOfClass("Other").has_value(); }));
    ASSERT_NE(integration.findVSCode(), nullptr);  // the start flow looks on its own thread

    std::vector<std::string> toggle{"key ctrl+shift+p"};
    toggle.insert(toggle.end(), kTypedCommand.begin(), kTypedCommand.end());
    toggle.push_back("key Return");

    ASSERT_TRUE(inBackground(&VSCodeIntegration::enableScreencastMode));
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(waitForKeys("code.log", toggle.size()), toggle);

    ASSERT_TRUE(inBackground(&VSCodeIntegration::disableScreencastMode));
    EXPECT_FALSE(integration.screencastModeEnabled());
    std::vector<std::string> twice = toggle;
    twice.insert(twice.end(), toggle.begin(), toggle.end());
    EXPECT_EQ(waitForKeys("code.log", twice.size()), twice);
    EXPECT_TRUE(keyLog("other.log").empty());
}

}  // namespace
}  // namespace gb::linuxp
