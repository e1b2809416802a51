// Folders, settings and dates, in a temporary home (the user's own files are never touched).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/files/xdg_files.h"

namespace gb::linuxp {
namespace {

using fakes::LogCapture;
using ::testing::HasSubstr;
using ::testing::Not;

unsigned modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
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
    XdgFileSystem files;
};

TEST_F(TemporaryHomeTest, DocumentsFolderFromTheEnvironmentTheUserDirsFileOrTheHome) {
    EXPECT_EQ(files.documentsDirectory(), home() + "/Documents");
    writeFile(home() + "/.config/user-dirs.dirs",
              "# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
              "XDG_DOCUMENTS_DIR=\"$HOME/first\"\n"
              "  XDG_DOCUMENTS_DIR=\"$HOME/My \\\"Docs\\\" \\$x\"\n");
    EXPECT_EQ(files.documentsDirectory(), home() + "/My \"Docs\" $x");  // the last one counts

    writeFile(dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/shared docs\"\n");
    env.set("XDG_CONFIG_HOME", dir / "config");
    EXPECT_EQ(files.documentsDirectory(), "/srv/shared docs");
    env.set("XDG_DOCUMENTS_DIR", "$HOME/from-environment");
    EXPECT_EQ(files.documentsDirectory(), home() + "/from-environment");
}

TEST_F(TemporaryHomeTest, FoldersArePrivateWhateverTheUmaskAndFailuresSayWhy) {
    const mode_t previous = ::umask(0277);  // would leave new folders unwritable
    const std::string leaf = home() + "/Documents/Glimmerbox Recordings/nested";
    const auto created = files.createDirectory(leaf, true);
    ::umask(previous);
    ASSERT_TRUE(created.ok()) << created.error().textualForm();
    for (const auto& path :
         {home() + "/Documents", home() + "/Documents/Glimmerbox Recordings", leaf})
        EXPECT_EQ(modeOf(path), 0700u) << path;
    EXPECT_TRUE(files.createDirectory(leaf + "/", true).ok());  // an existing one is success
    writeFile(home() + "/Movies", "a file where the folder should be");
    const auto underFile = files.createDirectory(home() + "/Movies/Glimmerbox Recordings", true);
    ASSERT_FALSE(underFile.ok());
    EXPECT_EQ(underFile.error().textualForm(),
              "Error Domain=POSIX Code=" + std::to_string(ENOTDIR) + " \"Not a directory\"");
}

TEST_F(TemporaryHomeTest, SettingsSurviveARestartInTheXdgConfigFolderAndNeedOne) {
    const std::string folder = home() + "/Movies/Talks #1 & 100%";
    {
        QSettingsDefaultsStore store;
        EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
        EXPECT_EQ(store.urlForKey("customSaveLocation"), std::nullopt);
        store.setBool(true, "vsCodeAutomationEnabled");
        store.setURL(folder, "customSaveLocation");
    }
    QSettingsDefaultsStore restarted;
    EXPECT_EQ(restarted.boolForKey("vsCodeAutomationEnabled"), true);
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);

    LogCapture logs;
    restarted.setURL("relative/folder", "customSaveLocation");
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_THAT(logs.lines()[0], HasSubstr("is not an absolute path"));
    logs.clear();

    env.unset("HOME");
    EXPECT_EQ(QSettingsDefaultsStore::defaultFilePath(), std::nullopt);

    // With nowhere to keep them, settings read as absent and a write says why it failed.
    QSettingsDefaultsStore nowhere;
    nowhere.setBool(true, "vsCodeAutomationEnabled");
    EXPECT_EQ(nowhere.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_THAT(logs.lines()[0],
                ::testing::StartsWith("❌ Failed to save setting vsCodeAutomationEnabled"));
}

TEST_F(TemporaryHomeTest, SettingsOfTheWrongFormReadAsAbsent) {
    writeFile(settingsFile(),
              "[General]\nbanana=banana\nfive=5\none=1\nno=false\nrelative=some/folder\n"
              "absolute=/srv/recordings\nurl=file:///srv/my%20recordings\n"
              "web=https://example.com/recordings\nremote=file://fileserver/recordings\n");
    QSettingsDefaultsStore store;
    for (const char* key : {"banana", "five"}) EXPECT_EQ(store.boolForKey(key), std::nullopt);
    EXPECT_EQ(store.boolForKey("one"), true);
    EXPECT_EQ(store.boolForKey("no"), false);
    for (const char* key : {"relative", "web", "remote"})
        EXPECT_EQ(store.urlForKey(key), std::nullopt) << key;
    EXPECT_EQ(store.urlForKey("absolute"), "/srv/recordings");
    EXPECT_EQ(store.urlForKey("url"), "/srv/my recordings");
}

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
    EXPECT_EQ(readFile(file + ".broken"), damaged);
    EXPECT_THAT(readFile(file), Not(HasSubstr("other")));
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
