#include "portable/system_events_script.h"

#include <string>
#include <utility>

#include "automation/system_events_scripts.h"

namespace gb::linuxp {
namespace {

constexpr std::string_view kIndent = "    ";
constexpr std::string_view kKeystroke = "keystroke ";
constexpr std::string_view kKeyCode = "key code ";
constexpr std::string_view kUsing = " using ";
constexpr int kLastKeyCode = 127;

PlatformError refusal(int line, const std::string& why) {
    std::string text = "Unsupported script";
    if (line > 0) text += " (line " + std::to_string(line) + ")";
    text += ": " + why;
    return PlatformError{std::string(kScriptErrorDomain), line, std::move(text)};
}

std::vector<std::string_view> splitLines(std::string_view source) {
    std::vector<std::string_view> lines;
    for (;;) {
        const size_t end = source.find('\n');
        lines.push_back(source.substr(0, end));
        if (end == std::string_view::npos) return lines;
        source.remove_prefix(end + 1);
    }
}

// Decodes one UTF-8 sequence at the front of `text`; nothing when it is not valid UTF-8.
std::optional<char32_t> takeCodePoint(std::string_view& text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0;
    if (lead < 0x80) {
        text.remove_prefix(1);
        return lead;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, value = lead & 0x1F, smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, value = lead & 0x0F, smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, value = lead & 0x07, smallest = 0x10000;
    } else {
        return std::nullopt;
    }
    if (text.size() < length) return std::nullopt;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return std::nullopt;
        value = (value << 6) | (byte(i) & 0x3F);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return value;
}

// Reads a double-quoted string at the front of `rest` and removes it from there.
Result<std::u32string> takeString(std::string_view& rest, int line) {
    if (rest.empty() || rest.front() != '"') return refusal(line, "expected a quoted string");
    rest.remove_prefix(1);
    std::u32string text;
    for (;;) {
        if (rest.empty()) return refusal(line, "unterminated string");
        const char c = rest.front();
        if (c == '"') {
            rest.remove_prefix(1);
            return text;
        }
        if (c == '\\') {
            if (rest.size() < 2 || (rest[1] != '"' && rest[1] != '\\')) {
                return refusal(line, "unsupported escape in string");
            }
            text.push_back(static_cast<char32_t>(rest[1]));
            rest.remove_prefix(2);
            continue;
        }
        const std::optional<char32_t> codePoint = takeCodePoint(rest);
        if (!codePoint) return refusal(line, "invalid UTF-8 in string");
        if (*codePoint < 0x20 || *codePoint == 0x7F) {
            return refusal(line, "control character in string");
        }
        text.push_back(*codePoint);
    }
}

// "{command down, shift down}" and its subsets, each modifier at most once.
Result<ScriptModifiers> parseModifiers(std::string_view list, int line) {
    if (list.size() < 2 || list.front() != '{' || list.back() != '}') {
        return refusal(line, "expected a modifier list in braces");
    }
    list = list.substr(1, list.size() - 2);
    ScriptModifiers modifiers;
    for (;;) {
        const size_t comma = list.find(", ");
        const std::string_view item = list.substr(0, comma);
        bool* flag = item == "command down" ? &modifiers.command
                     : item == "shift down" ? &modifiers.shift
                                            : nullptr;
        if (flag == nullptr) {
            return refusal(line, "unsupported modifier \"" + std::string(item) + "\"");
        }
        if (*flag) return refusal(line, "modifier \"" + std::string(item) + "\" given twice");
        *flag = true;
        if (comma == std::string_view::npos) return modifiers;
        list.remove_prefix(comma + 2);
    }
}

Result<ScriptAction> parseKeystroke(std::string_view rest, int line) {
    Result<std::u32string> text = takeString(rest, line);
    if (!text) return text.error();
    ScriptAction action;
    action.characters = std::move(text.value());
    if (rest.empty()) {
        action.kind = ScriptAction::Kind::typeText;
        return action;
    }
    if (!rest.starts_with(kUsing)) return refusal(line, "unexpected text after the string");
    rest.remove_prefix(kUsing.size());
    Result<ScriptModifiers> modifiers = parseModifiers(rest, line);
    if (!modifiers) return modifiers.error();
    if (action.characters.size() != 1) {
        return refusal(line, "a keystroke with modifiers takes exactly one character");
    }
    action.kind = ScriptAction::Kind::keyChord;
    action.modifiers = modifiers.value();
    return action;
}

Result<ScriptAction> parseKeyCode(std::string_view digits, int line) {
    const bool wellFormed = !digits.empty() && digits.size() <= 3 &&
                            (digits.size() == 1 || digits.front() != '0') &&
                            digits.find_first_not_of("0123456789") == std::string_view::npos;
    if (!wellFormed) return refusal(line, "expected a key code in decimal");
    const int code = std::stoi(std::string(digits));
    if (code > kLastKeyCode) return refusal(line, "key code out of range");
    ScriptAction action;
    action.kind = ScriptAction::Kind::keyCode;
    action.keyCode = code;
    return action;
}

}  // namespace

Result<std::vector<ScriptAction>> parseSystemEventsScript(std::string_view source) {
    // Asked for by the automation but meaningless here: no terminals are looked for.
    if (source == scripts::kTerminalDetection) return std::vector<ScriptAction>{};

    const std::vector<std::string_view> lines = splitLines(source);
    if (lines.size() != 3) {
        return refusal(0, "expected 3 lines, found " + std::to_string(lines.size()));
    }
    if (lines[0] != scripts::kTellSystemEvents) {
        return refusal(1, "expected tell application \"System Events\"");
    }
    if (lines[2] != scripts::kEndTell) return refusal(3, "expected end tell");

    constexpr int kBodyLine = 2;
    std::string_view body = lines[1];
    if (!body.starts_with(kIndent) || body.substr(kIndent.size()).starts_with(' ')) {
        return refusal(kBodyLine, "expected an indent of four spaces");
    }
    body.remove_prefix(kIndent.size());

    Result<ScriptAction> action = refusal(kBodyLine, "expected keystroke or key code");
    if (body.starts_with(kKeystroke)) {
        action = parseKeystroke(body.substr(kKeystroke.size()), kBodyLine);
    } else if (body.starts_with(kKeyCode)) {
        action = parseKeyCode(body.substr(kKeyCode.size()), kBodyLine);
    }
    if (!action) return action.error();
    return std::vector<ScriptAction>{std::move(action.value())};
}

std::optional<NamedKey> namedKeyForKeyCode(int keyCode) {
    switch (keyCode) {
        case 36:
            return NamedKey::returnKey;
        case 53:
            return NamedKey::escape;
        case 49:
            return NamedKey::space;
        case 48:
            return NamedKey::tab;
        case 51:
            return NamedKey::backspace;
        default:
            return std::nullopt;
    }
}

}  // namespace gb::linuxp
