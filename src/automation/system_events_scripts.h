// The script texts that the editor automation sends to System Events, shared by the code that
// builds them and by the Linux runner that understands exactly these forms.
#pragma once

#include <string>
#include <string_view>

namespace gb::scripts {

inline constexpr std::string_view kTellSystemEvents = "tell application \"System Events\"";
inline constexpr std::string_view kEndTell = "end tell";

// The editor's command-palette shortcut.
inline constexpr std::string_view kCommandPalette =
    "tell application \"System Events\"\n"
    "    keystroke \"p\" using {command down, shift down}\n"
    "end tell";

// Looks for running terminal applications. The lines that look empty hold four spaces.
inline constexpr std::string_view kTerminalDetection =
    "tell application \"System Events\"\n"
    "    set terminalApps to {}\n"
    "    \n"
    "    -- Check for common terminal applications\n"
    "    set terminalBundles to {\"com.apple.Terminal\", \"com.googlecode.iterm2\", "
    "\"com.github.wez.wezterm\", \"org.alacritty\"}\n"
    "    \n"
    "    repeat with bundleId in terminalBundles\n"
    "        try\n"
    "            if exists (first application process whose bundle identifier is bundleId) "
    "then\n"
    "                set terminalApps to terminalApps & {bundleId}\n"
    "            end if\n"
    "        end try\n"
    "    end repeat\n"
    "    \n"
    "    return terminalApps\n"
    "end tell";

// Types `text`. It is inserted unescaped, which suffices for the command names typed here; a text
// holding a double quote makes a script that fails to run.
inline std::string typeTextScript(std::string_view text) {
    std::string script(kTellSystemEvents);
    script += "\n    keystroke \"";
    script += text;
    script += "\"\n";
    script += kEndTell;
    return script;
}

// Presses the key with the given virtual key code.
inline std::string pressKeyScript(int keyCode) {
    std::string script(kTellSystemEvents);
    script += "\n    key code ";
    script += std::to_string(keyCode);
    script += '\n';
    script += kEndTell;
    return script;
}

}  // namespace gb::scripts
