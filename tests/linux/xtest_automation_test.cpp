// The editor automation against a private Xvfb with fake_editor as the editor. Activation
// through a window manager is covered by the tray end-to-end test.
// gtest first: Xlib defines macros (None, Bool) that clash with its names.
#include <gtest/gtest.h>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "automation/system_events_scripts.h"
#include "fakes/test_environment.h"
#include "fakes/xvfb_server.h"
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
        std::ifstream file(scratch_ / logName);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
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

// The key lines fake_editor logs for one screencast toggle.
std::vector<std::string> toggleKeys() {
    std::vector<std::string> keys{"key ctrl+shift+p"};
    for (const char c : std::string("Toggle Screencast Mode"))
        keys.push_back(c == ' ' ? "key space" : std::string("key ") + c);
    keys.push_back("key Return");
    return keys;
}

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

TEST_F(XAutomationTest, ScriptsItCannotRunFailAndTypeNothingAndTheToggleTypesTheCommand) {
    const auto editor = startCode();
    ASSERT_NE(editor, nullptr);
    const std::optional<Window> window = windowOfClass("Code");
    ASSERT_TRUE(window);
    // No window manager here: activation gives the window the focus itself.
    ASSERT_TRUE(editor->activate());
    ASSERT_TRUE(eventually([&] { return focusedWindow() == *window; }));

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

    // The toggle's three scripts that follow are the first keys the editor sees.
    for (const std::string& script :
         {std::string(scripts::kCommandPalette), scripts::typeTextScript("Toggle Screencast Mode"),
          scripts::pressKeyScript(36)}) {
        const ScriptOutcome outcome = runner->run(script);
        EXPECT_EQ(outcome.kind, ScriptOutcome::Kind::succeeded) << outcome.errorDescription;
    }
    EXPECT_EQ(waitForKeys("code.log", toggleKeys().size()), toggleKeys());
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

}  // namespace
}  // namespace gb::linuxp
