#include "linux/portable/system_events_script.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "automation/system_events_scripts.h"

namespace gb::linuxp {
namespace {

using Kind = ScriptAction::Kind;

std::string wrap(const std::string& body) {
    return "tell application \"System Events\"\n    " + body + "\nend tell";
}

std::vector<ScriptAction> accepted(const std::string& source) {
    Result<std::vector<ScriptAction>> parsed = parseSystemEventsScript(source);
    EXPECT_TRUE(parsed.ok()) << (parsed.ok() ? "" : parsed.error().localizedDescription);
    return parsed.ok() ? parsed.value() : std::vector<ScriptAction>{};
}

TEST(SystemEventsScriptTest, UnderstandsTheScriptsTheAutomationSends) {
    ScriptAction chord;
    chord.kind = Kind::keyChord;
    chord.characters = U"p";
    chord.modifiers = {.command = true, .shift = true};
    EXPECT_EQ(accepted(std::string(scripts::kCommandPalette)), std::vector<ScriptAction>{chord});

    ScriptAction typed;
    typed.kind = Kind::typeText;
    typed.characters = U"Toggle Screencast Mode";
    EXPECT_EQ(accepted(scripts::typeTextScript("Toggle Screencast Mode")),
              std::vector<ScriptAction>{typed});

    for (int code : {36, 53, 49, 48, 51, 0, 127}) {
        ScriptAction key;
        key.kind = Kind::keyCode;
        key.keyCode = code;
        EXPECT_EQ(accepted(scripts::pressKeyScript(code)), std::vector<ScriptAction>{key});
    }
    EXPECT_TRUE(accepted(std::string(scripts::kTerminalDetection)).empty());
}

TEST(SystemEventsScriptTest, DecodesTextAndItsTwoEscapes) {
    const std::vector<ScriptAction> actions = accepted(wrap(R"(keystroke "café \"x\" \\ ✓")"));
    ASSERT_EQ(actions.size(), 1u);
    EXPECT_EQ(actions[0].characters, U"café \"x\" \\ ✓");
    EXPECT_EQ(accepted(wrap(R"(keystroke "")"))[0].characters, U"");
    EXPECT_EQ(accepted(wrap(R"(keystroke "P" using {shift down})"))[0].modifiers,
              (ScriptModifiers{.command = false, .shift = true}));
    EXPECT_EQ(accepted(wrap(R"(keystroke "é" using {shift down, command down})"))[0].characters,
              U"é");
}

const std::string kPalette(scripts::kCommandPalette);
const std::string kDetection(scripts::kTerminalDetection);

// Scripts that look almost right are refused, each with the line at fault.
TEST(SystemEventsScriptTest, NearMissesAreRefusedWithTheLineAtFault) {
    const struct {
        const char* why;
        std::string source;
        int line;
    } nearMisses[] = {
        {"empty", "", 0},
        {"other application", "tell application \"Finder\"\n    key code 36\nend tell", 1},
        {"application name in other case",
         "tell application \"system events\"\n    key code 36\nend tell", 1},
        {"other modifier", wrap(R"(keystroke "p" using {option down})"), 2},
        {"one good one bad modifier", wrap(R"(keystroke "p" using {command down, option down})"),
         2},
        {"modifier twice", wrap(R"(keystroke "p" using {shift down, shift down})"), 2},
        {"empty modifier list", wrap(R"(keystroke "p" using {})"), 2},
        {"modifier list without braces", wrap(R"(keystroke "p" using command down)"), 2},
        {"chord of two characters", wrap(R"(keystroke "pq" using {command down})"), 2},
        {"unterminated string", wrap(R"(keystroke "Toggle)"), 2},
        {"string ends in an escape", wrap(R"(keystroke "abc\")"), 2},
        {"unknown escape", wrap(R"(keystroke "a\nb")"), 2},
        {"control character", wrap("keystroke \"a\tb\""), 2},
        {"invalid UTF-8", wrap("keystroke \"\xC3\x28\""), 2},
        {"overlong UTF-8", wrap("keystroke \"\xC0\xAF\""), 2},
        {"text after the string", wrap(R"(keystroke "a" & "b")"), 2},
        {"unquoted keystroke", wrap("keystroke p"), 2},
        {"key code in hex", wrap("key code 0x24"), 2},
        {"key code with leading zero", wrap("key code 036"), 2},
        {"key code out of range", wrap("key code 128"), 2},
        {"key code with trailing blank", wrap("key code 36 "), 2},
        {"other command", wrap("do shell script \"rm -rf ~\""), 2},
        {"three-space indent",
         "tell application \"System Events\"\n   key code "
         "36\nend tell",
         2},
        {"tab indent", "tell application \"System Events\"\n\tkey code 36\nend tell", 2},
        {"missing end tell", "tell application \"System Events\"\n    key code 36", 0},
        {"wrong end", "tell application \"System Events\"\n    key code 36\nend", 3},
        {"trailing line feed", kPalette + "\n", 0},
        {"extra line after end tell", kPalette + "\nkey code 36", 0},
        {"two actions",
         "tell application \"System Events\"\n    key code 36\n    key code "
         "36\nend tell",
         0},
        {"carriage returns", "tell application \"System Events\"\r\n    key code 36\r\nend tell",
         1},
        {"terminal detection altered", kDetection.substr(0, kDetection.size() - 1), 0}};
    for (const auto& miss : nearMisses) {
        Result<std::vector<ScriptAction>> parsed = parseSystemEventsScript(miss.source);
        ASSERT_FALSE(parsed.ok()) << miss.why;
        EXPECT_EQ(parsed.error().domain, kScriptErrorDomain);
        EXPECT_EQ(parsed.error().code, miss.line) << miss.why;
        EXPECT_TRUE(parsed.error().localizedDescription.starts_with("Unsupported script"));
    }
}

TEST(SystemEventsScriptTest, KnowsTheFiveKeyCodesOnly) {
    const std::pair<int, NamedKey> known[] = {{36, NamedKey::returnKey},
                                              {53, NamedKey::escape},
                                              {49, NamedKey::space},
                                              {48, NamedKey::tab},
                                              {51, NamedKey::backspace}};
    for (const auto& [code, key] : known) EXPECT_EQ(namedKeyForKeyCode(code), key) << code;
    for (int code : {0, 35, 37, 52, 117, 127}) EXPECT_FALSE(namedKeyForKeyCode(code)) << code;
}

}  // namespace
}  // namespace gb::linuxp
