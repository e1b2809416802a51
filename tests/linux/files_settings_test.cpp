// Guards against: a damaged or unwritable settings file that loses settings silently or stops the program, and file-name stamps in the wrong time zone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/processes.h"
#include "linux/files/xdg_files.h"

namespace gb::linuxp {
namespace {

using fakes::LogCapture;
using ::testing::HasSubstr;
using ::testing::Not;

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// A temporary home with no XDG variables set.
class TemporaryHomeTest : public ::testing::Test {
protected:
    TemporaryHomeTest() {
        env.set("HOME", home());
        env.unset("XDG_CONFIG_HOME");
        env.unset("XDG_DOCUMENTS_DIR");
        std::filesystem::create_directories(home());
    }
    std::string home() const { return dir / "home"; }
    std::string settingsFile() const { return home() + "/.config/Glimmerbox/Glimmerbox.conf"; }

    fakes::TempDirectory dir;
    fakes::ScopedEnvironment env;
};

TEST_F(TemporaryHomeTest, ADamagedSettingsFileIsKeptAsideAndAnUnwritableOneReported) {
    const std::string file = settingsFile();
    // Qt parses part of it (vsCodeAutomationEnabled would read true) but flags it as damaged.
    const std::string damaged = "[General\nvsCodeAutomationEnabled=true\n\xff\xfe=1\nother=5\n";
    writeFile(file, damaged);
    LogCapture logs;
    QSettingsDefaultsStore store;
    EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
    EXPECT_EQ(store.urlForKey("customSaveLocation"), std::nullopt);
    store.setBool(true, "vsCodeAutomationEnabled");
    EXPECT_EQ(logs.lines(), (std::vector<std::string>{
                                "⚠️ Settings file " + file +
                                    " cannot be read (the file is damaged); using the defaults",
                                "⚠️ Settings file " + file + " was damaged; kept it as " +
                                    file + ".broken and started a new one"}));  // each said once
    EXPECT_EQ(fakes::readText(file + ".broken"), damaged);
    EXPECT_THAT(fakes::readText(file), Not(HasSubstr("other")));
    EXPECT_EQ(QSettingsDefaultsStore().boolForKey("vsCodeAutomationEnabled"), true);

    std::filesystem::remove(file);
    std::filesystem::create_directories(file);  // a folder stands where the file should be
    logs.clear();
    QSettingsDefaultsStore blocked;
    blocked.setBool(true, "vsCodeAutomationEnabled");
    ASSERT_FALSE(logs.lines().empty());
    EXPECT_EQ(logs.lines().back(), "❌ Failed to save setting vsCodeAutomationEnabled in " + file +
                                       ": the file cannot be read or written");
}

TEST(DateFormatterTest, FormatsTheFileNameStampInLocalTime) {
    using namespace std::chrono;
    const auto sample = sys_days{year{2025} / March / 14} + 9h + 26min + 53s + 123ms;
    fakes::ScopedEnvironment env;
    const auto format = [&](const char* pattern, const char* zone) {
        env.set("TZ", zone);
        return LocaleDateFormatter().format(pattern, sample);
    };
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "UTC0"), "2025-03-14_09-26-53");
    // New York had moved to summer time five days earlier: UTC-4.
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "EST5EDT,M3.2.0,M11.1.0"), "2025-03-14_05-26-53");
}

}  // namespace
}  // namespace gb::linuxp
