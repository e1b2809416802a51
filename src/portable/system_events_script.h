// The little scripting language that the editor automation speaks, understood strictly: exactly
// the System Events forms the program sends, turned into key actions. Nothing is ever evaluated or
// handed to a shell; any other text is refused with an error that says why.
//
// Accepted, with lines separated by one line feed and no line feed after the last:
//   tell application "System Events"
//       keystroke "p" using {command down, shift down}    (a chord: one character, modifiers)
//       keystroke "some text"                             (types the text)
//       key code 36                                       (a key by its virtual key code)
//   end tell
// with exactly one of the three middle lines, indented by four spaces; and the terminal-detection
// script as a whole, which has no actions. Strings may escape a double quote or a backslash with a
// backslash; control characters and invalid UTF-8 are refused.
//
// Threads: pure functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace gb::linuxp {

struct ScriptModifiers {
    bool command = false;
    bool shift = false;
    bool operator==(const ScriptModifiers&) const = default;
};

struct ScriptAction {
    enum class Kind { keyChord, typeText, keyCode };

    Kind kind = Kind::typeText;
    std::u32string characters;  // keyChord: exactly one; typeText: the text, possibly empty
    ScriptModifiers modifiers;  // keyChord only
    int keyCode = 0;            // keyCode only: the virtual key code, 0 to 127
    bool operator==(const ScriptAction&) const = default;
};

// Error domain of refused scripts; the error's code is the 1-based line at fault, or 0 when the
// script's shape as a whole is wrong.
inline constexpr std::string_view kScriptErrorDomain = "gb.SystemEventsScript";

// The script's actions, in order, or why it was refused.
[[nodiscard]] Result<std::vector<ScriptAction>> parseSystemEventsScript(std::string_view source);

// Keys that a virtual key code can name here.
enum class NamedKey { returnKey, escape, space, tab, backspace };

// 36 Return, 53 Escape, 49 space, 48 Tab, 51 the delete key (backspace); others have no key.
[[nodiscard]] std::optional<NamedKey> namedKeyForKeyCode(int keyCode);

}  // namespace gb::linuxp
