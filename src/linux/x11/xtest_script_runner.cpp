#include "linux/x11/xtest_script_runner.h"

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <optional>
#include <thread>
#include <utility>

namespace gb::linuxp {
namespace {

// Long enough for a busy client to read a lent key's symbol before the keycode is taken back.
constexpr std::chrono::milliseconds kLentKeyHold(250);

ScriptOutcome failure(std::string description) {
    return {ScriptOutcome::Kind::failed, std::move(description)};
}

KeySym keysymForCharacter(char32_t character) {
    // Latin-1 characters are their own keysyms; every other one has a Unicode keysym.
    if ((character >= 0x20 && character <= 0x7E) || (character >= 0xA0 && character <= 0xFF)) {
        return character;
    }
    return 0x01000000 | character;
}

std::string keysymName(KeySym keysym) {
    const char* name = XKeysymToString(keysym);
    return name != nullptr ? name : "keysym " + std::to_string(keysym);
}

KeySym keysymForNamedKey(NamedKey key) {
    switch (key) {
        case NamedKey::returnKey:
            return XK_Return;
        case NamedKey::escape:
            return XK_Escape;
        case NamedKey::space:
            return XK_space;
        case NamedKey::tab:
            return XK_Tab;
        case NamedKey::backspace:
            return XK_BackSpace;
    }
    return NoSymbol;
}

// One key press the script asks for.
struct Stroke {
    KeySym keysym = NoSymbol;
    bool control = false;
    bool shift = false;
};

Result<std::vector<Stroke>> strokesFor(const std::vector<ScriptAction>& actions) {
    std::vector<Stroke> strokes;
    for (const ScriptAction& action : actions) {
        switch (action.kind) {
            case ScriptAction::Kind::keyChord:
                strokes.push_back({keysymForCharacter(action.characters.front()),
                                   action.modifiers.command, action.modifiers.shift});
                break;
            case ScriptAction::Kind::typeText:
                for (char32_t character : action.characters) {
                    strokes.push_back({keysymForCharacter(character), false, false});
                }
                break;
            case ScriptAction::Kind::keyCode: {
                const std::optional<NamedKey> key = namedKeyForKeyCode(action.keyCode);
                if (!key) {
                    return PlatformError{std::string(kScriptErrorDomain), 2,
                                         "Unsupported key code " + std::to_string(action.keyCode)};
                }
                strokes.push_back({keysymForNamedKey(*key), false, false});
                break;
            }
        }
    }
    return strokes;
}

struct XkbKeyboardDeleter {
    void operator()(XkbDescPtr keyboard) const { XkbFreeKeyboard(keyboard, 0, True); }
};

// Where a keysym is: its key, and whether Shift is needed to reach it.
struct KeyPlace {
    KeyCode keycode = 0;
    bool shift = false;
};

// The server's keyboard map in the layout group that is active now.
class KeyboardMap {
public:
    static Result<KeyboardMap> load(Display* display) {
        int opcode = 0;
        int eventBase = 0;
        int errorBase = 0;
        int major = XkbMajorVersion;
        int minor = XkbMinorVersion;
        if (!XkbQueryExtension(display, &opcode, &eventBase, &errorBase, &major, &minor)) {
            return PlatformError{"gb.X11", 0, "The X server has no XKEYBOARD extension"};
        }
        std::unique_ptr<XkbDescRec, XkbKeyboardDeleter> keyboard(
            XkbGetMap(display, XkbKeyTypesMask | XkbKeySymsMask, XkbUseCoreKbd));
        XkbStateRec state{};
        if (!keyboard || XkbGetState(display, XkbUseCoreKbd, &state) != Success) {
            return PlatformError{"gb.X11", 0, "Cannot read the keyboard map"};
        }
        return KeyboardMap(std::move(keyboard), state.group);
    }

    // Unshifted places first, so that Shift is pressed only where it must be.
    [[nodiscard]] std::optional<KeyPlace> find(KeySym keysym) const {
        for (const bool shift : {false, true}) {
            for (int keycode = keyboard_->min_key_code; keycode <= keyboard_->max_key_code;
                 ++keycode) {
                const int groups = XkbKeyNumGroups(keyboard_.get(), keycode);
                if (groups == 0) continue;
                const int group = group_ % groups;
                const int level =
                    levelFor(XkbKeyKeyType(keyboard_.get(), keycode, group), shift ? ShiftMask : 0);
                if (level < 0 || level >= XkbKeyGroupWidth(keyboard_.get(), keycode, group)) {
                    continue;
                }
                if (XkbKeySymEntry(keyboard_.get(), keycode, level, group) == keysym) {
                    return KeyPlace{static_cast<KeyCode>(keycode), shift};
                }
            }
        }
        return std::nullopt;
    }

    // The keycodes without any symbol, free to lend to characters; highest first.
    [[nodiscard]] std::vector<KeyCode> spareKeycodes() const {
        std::vector<KeyCode> spares;
        for (int keycode = keyboard_->max_key_code; keycode >= keyboard_->min_key_code; --keycode) {
            if (XkbKeyNumGroups(keyboard_.get(), keycode) == 0) {
                spares.push_back(static_cast<KeyCode>(keycode));
            }
        }
        return spares;
    }

private:
    KeyboardMap(std::unique_ptr<XkbDescRec, XkbKeyboardDeleter> keyboard, int group)
        : keyboard_(std::move(keyboard)), group_(group) {}

    // The shift level that exactly `modifiers` select in a key of this type; -1 when none.
    static int levelFor(XkbKeyTypePtr type, unsigned int modifiers) {
        for (int i = 0; i < type->map_count; ++i) {
            const XkbKTMapEntryRec& entry = type->map[i];
            if (entry.active && entry.mods.mask == modifiers) return entry.level;
        }
        return modifiers == 0 ? 0 : -1;
    }

    std::unique_ptr<XkbDescRec, XkbKeyboardDeleter> keyboard_;
    int group_;
};

// Lends spare keycodes to keysyms that no key produces, for the length of one script, and takes
// them all back at its end. A client reads the symbol of a key press some time after the press
// (after it has fetched the changed map), so a keycode is only taken back after a pause.
class KeycodeLender {
public:
    KeycodeLender(Display* display, std::vector<KeyCode> spares)
        : display_(display), spares_(std::move(spares)) {}
    ~KeycodeLender() { takeAllBack(); }
    KeycodeLender(const KeycodeLender&) = delete;
    KeycodeLender& operator=(const KeycodeLender&) = delete;
    KeycodeLender(KeycodeLender&&) = delete;
    KeycodeLender& operator=(KeycodeLender&&) = delete;

    // The keycode now producing `keysym` unshifted. Requires at least one spare keycode.
    KeyCode lend(KeySym keysym) {
        for (const auto& [lentKeysym, keycode] : lent_) {
            if (lentKeysym == keysym) return keycode;
        }
        if (lent_.size() == spares_.size()) takeAllBack();  // more symbols than spare keys
        const KeyCode keycode = spares_[lent_.size()];
        KeySym symbols[] = {keysym, keysym};
        XChangeKeyboardMapping(display_, keycode, 2, symbols, 1);
        XSync(display_, False);
        lent_.emplace_back(keysym, keycode);
        return keycode;
    }

    void takeAllBack() {
        if (lent_.empty()) return;
        std::this_thread::sleep_for(kLentKeyHold);
        KeySym none[] = {NoSymbol};
        for (const auto& [keysym, keycode] : lent_) {
            XChangeKeyboardMapping(display_, keycode, 1, none, 1);
        }
        XSync(display_, False);
        lent_.clear();
    }

private:
    Display* const display_;
    const std::vector<KeyCode> spares_;
    std::vector<std::pair<KeySym, KeyCode>> lent_;
};

}  // namespace

XTestScriptRunner::XTestScriptRunner(std::string displayName, std::chrono::milliseconds keyGap)
    : displayName_(std::move(displayName)), keyGap_(keyGap) {}

ScriptOutcome XTestScriptRunner::run(const std::string& source) {
    Result<std::vector<ScriptAction>> parsed = parseSystemEventsScript(source);
    if (!parsed) return failure(parsed.error().localizedDescription);
    if (parsed.value().empty()) return {};

    std::lock_guard lock(mutex_);
    if (!connection_) {
        auto opened = X11ClientConnection::open(displayName_);
        if (!opened) return failure(opened.error().localizedDescription);
        int eventBase = 0;
        int errorBase = 0;
        int major = 0;
        int minor = 0;
        if (!XTestQueryExtension(opened.value()->display(), &eventBase, &errorBase, &major,
                                 &minor)) {
            return failure("The X server has no XTEST extension");
        }
        connection_ = std::move(opened.value());
    }
    return perform(parsed.value());
}

ScriptOutcome XTestScriptRunner::perform(const std::vector<ScriptAction>& actions) {
    Display* display = connection_->display();
    X11ErrorTrap trap(display);

    Result<std::vector<Stroke>> strokes = strokesFor(actions);
    if (!strokes) return failure(strokes.error().localizedDescription);
    Result<KeyboardMap> loaded = KeyboardMap::load(display);
    if (!loaded) return failure(loaded.error().localizedDescription);
    const KeyboardMap& keyboard = loaded.value();

    // Everything is looked up before the first key goes out: a script fails whole or not at all.
    const std::optional<KeyPlace> control = keyboard.find(XK_Control_L);
    const std::optional<KeyPlace> shift = keyboard.find(XK_Shift_L);
    if (!control || !shift) return failure("The keyboard map has no Control or Shift key");
    std::vector<KeyCode> spares = keyboard.spareKeycodes();
    std::vector<std::optional<KeyPlace>> places;
    for (const Stroke& stroke : strokes.value()) {
        places.push_back(keyboard.find(stroke.keysym));
        if (!places.back() && spares.empty()) {
            return failure("No key types " + keysymName(stroke.keysym) +
                           " and no free keycode can be lent to it");
        }
    }

    const auto send = [&](KeyCode keycode, bool press) {
        XTestFakeKeyEvent(display, keycode, press ? True : False, CurrentTime);
    };
    KeycodeLender lender(display, std::move(spares));
    for (size_t i = 0; i < places.size(); ++i) {
        const Stroke& stroke = strokes.value()[i];
        const KeyPlace place = places[i] ? *places[i] : KeyPlace{lender.lend(stroke.keysym), false};
        const bool withShift = stroke.shift || place.shift;
        if (stroke.control) send(control->keycode, true);
        if (withShift) send(shift->keycode, true);
        send(place.keycode, true);
        send(place.keycode, false);
        if (withShift) send(shift->keycode, false);
        if (stroke.control) send(control->keycode, false);
        XSync(display, False);
        std::this_thread::sleep_for(keyGap_);
    }
    lender.takeAllBack();
    if (auto error = trap.sync()) return failure("X error while typing: " + *error);
    return {};
}

}  // namespace gb::linuxp
