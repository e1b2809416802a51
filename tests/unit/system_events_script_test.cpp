// Guards against: near-miss editor scripts (unknown commands, wrong modifiers, broken text) that are run instead of refused with the line at fault.
#include "portable/system_events_script.h"

#include <gtest/gtest.h>

#include "automation/system_events_scripts.h"

namespace gb::linuxp {
namespace {

std::string wrap(const std::string& body) {
    return "tell application \"System Events\"\n    " + body + "\nend tell";
}

const std::string kPalette(scripts::kCommandPalette);
const std::string kDetection(scripts::kTerminalDetection);

// Scripts that look almost right are refused, each with the line at fault.
TEST(SystemEventsScriptTest, NearMissesAreRefusedWithTheLineAtFault) {
    const struct {
        std::string source;
        int line;
    } nearMisses[] = {{"", 0},
                      {"tell application \"system events\"\n    key code 36\nend tell", 1},
                      {wrap(R"(keystroke "p" using {command down, option down})"), 2},
                      {wrap(R"(keystroke "pq" using {command down})"), 2},
                      {wrap("keystroke \"\xC0\xAF\""), 2},  // overlong UTF-8
                      {wrap("key code 128"), 2},
                      {wrap("do shell script \"rm -rf ~\""), 2},
                      {"tell application \"System Events\"\n    key code 36\nend", 3},
                      {kPalette + "\n", 0},
                      {kDetection.substr(0, kDetection.size() - 1), 0}};
    EXPECT_TRUE(parseSystemEventsScript(kDetection).ok() && parseSystemEventsScript(kPalette).ok());
    for (const auto& miss : nearMisses) {
        Result<std::vector<ScriptAction>> parsed = parseSystemEventsScript(miss.source);
        ASSERT_FALSE(parsed.ok()) << miss.source;
        EXPECT_EQ(parsed.error().domain, kScriptErrorDomain);
        EXPECT_EQ(parsed.error().code, miss.line) << miss.source;
        EXPECT_TRUE(parsed.error().localizedDescription.starts_with("Unsupported script"));
    }
}

}  // namespace
}  // namespace gb::linuxp
