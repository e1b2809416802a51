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
#include "linux/xdg_files.h"

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
    // A value that is neither under $HOME nor absolute does not count.
    writeFile(home() + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"Documents2\"\n");
    EXPECT_EQ(files.documentsDirectory(), home() + "/Documents");

    writeFile(dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/shared docs\"\n");
    env.set("XDG_CONFIG_HOME", dir / "config");
    EXPECT_EQ(files.documentsDirectory(), "/srv/shared docs");
    env.set("XDG_DOCUMENTS_DIR", "$HOME/from-environment");
    EXPECT_EQ(files.documentsDirectory(), home() + "/from-environment");

    // Without a home, nothing in terms of $HOME helps.
    env.unset("XDG_DOCUMENTS_DIR");
    writeFile(dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Documents\"\n");
    env.unset("HOME");
    EXPECT_EQ(files.documentsDirectory(), std::nullopt);
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
    // An existing folder is success and keeps its mode.
    ::chmod(home().c_str(), 0755);
    EXPECT_TRUE(files.createDirectory(home(), false).ok());
    EXPECT_EQ(modeOf(home()), 0755u);
    EXPECT_TRUE(files.createDirectory(leaf + "/", true).ok());

    const auto missingParent = files.createDirectory(home() + "/a/b", false);
    ASSERT_FALSE(missingParent.ok());
    EXPECT_EQ(missingParent.error().code, ENOENT);
    EXPECT_EQ(missingParent.error().localizedDescription, "No such file or directory");
    writeFile(home() + "/Movies", "a file where the folder should be");
    const auto underFile = files.createDirectory(home() + "/Movies/Glimmerbox Recordings", true);
    ASSERT_FALSE(underFile.ok());
    EXPECT_EQ(underFile.error().textualForm(),
              "Error Domain=POSIX Code=" + std::to_string(ENOTDIR) + " \"Not a directory\"");

    // A folder this user may not write into.
    const std::string locked = dir / "locked";
    ASSERT_TRUE(std::filesystem::create_directory(locked));
    ::chmod(dir.path().c_str(), 0755);
    ::chmod(locked.c_str(), 0555);
    EXPECT_EQ(fakes::runUnprivileged([&] {
                  const auto result = XdgFileSystem().createDirectory(locked + "/R/x", true);
                  return result.ok() ? 0 : result.error().code;
              }),
              EACCES);
}

TEST_F(TemporaryHomeTest, TellsAndRemovesFilesFoldersAndLinks) {
    const std::string file = home() + "/glimmerbox-2025-03-14_09-26-53.mov";
    EXPECT_FALSE(files.fileExists(file));
    writeFile(file, "movie");
    EXPECT_TRUE(files.fileExists(file));
    EXPECT_TRUE(files.removeItem(file).ok());
    EXPECT_FALSE(files.fileExists(file));
    const auto missing = files.removeItem(file);
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().localizedDescription, "No such file or directory");

    // A link to nothing does not exist as a file but can be removed.
    std::filesystem::create_symlink(home() + "/nowhere", home() + "/dangling");
    EXPECT_FALSE(files.fileExists(home() + "/dangling"));
    EXPECT_TRUE(files.removeItem(home() + "/dangling").ok());
    EXPECT_FALSE(std::filesystem::is_symlink(home() + "/dangling"));
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
    const std::string text = readFile(settingsFile());
    EXPECT_THAT(text, HasSubstr("vsCodeAutomationEnabled=true"));
    EXPECT_THAT(text, HasSubstr("customSaveLocation=file://" + home() +
                                "/Movies/Talks%20%231%20&%20100%25"));
    QSettingsDefaultsStore restarted;
    EXPECT_EQ(restarted.boolForKey("vsCodeAutomationEnabled"), true);
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);

    LogCapture logs;
    restarted.setURL("relative/folder", "customSaveLocation");
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_THAT(logs.lines()[0], HasSubstr("is not an absolute path"));
    logs.clear();

    EXPECT_EQ(QSettingsDefaultsStore::defaultFilePath(), settingsFile());
    env.set("XDG_CONFIG_HOME", dir / "config");
    EXPECT_EQ(QSettingsDefaultsStore().filePath(), dir / "config/Glimmerbox/Glimmerbox.conf");
    env.unset("XDG_CONFIG_HOME");
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
              "[General]\nbanana=banana\nfive=5\none=1\nzero=0\nyes=true\nno=false\n"
              "list=a, b\nrelative=some/folder\nabsolute=/srv/recordings\n"
              "url=file:///srv/my%20recordings\nweb=https://example.com/recordings\n"
              "remote=file://fileserver/recordings\nempty=\n");
    QSettingsDefaultsStore store;
    for (const char* key : {"banana", "five", "list", "missing"})
        EXPECT_EQ(store.boolForKey(key), std::nullopt) << key;
    for (const char* key : {"one", "yes"}) EXPECT_EQ(store.boolForKey(key), true) << key;
    for (const char* key : {"zero", "no"}) EXPECT_EQ(store.boolForKey(key), false) << key;
    for (const char* key : {"relative", "web", "remote", "list", "empty"})
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

TEST(DateFormatterTest, FormatsInLocalTimeWithTheUsualFieldsAndQuotedText) {
    using namespace std::chrono;
    // 2025-03-14 09:26:53.123 UTC, a Friday.
    const auto sample = sys_days{year{2025} / March / 14} + 9h + 26min + 53s + 123ms;
    const auto newYear = sys_days{year{2026} / January / 1} + 5min;
    fakes::ScopedEnvironment env;
    const auto format = [&](const char* pattern, const char* zone, system_clock::time_point date) {
        env.set("TZ", zone);
        return LocaleDateFormatter().format(pattern, date);
    };
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "UTC0", sample), "2025-03-14_09-26-53");
    // New York had moved to summer time five days earlier: UTC-4.
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "EST5EDT,M3.2.0,M11.1.0", sample),
              "2025-03-14_05-26-53");
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "<-01>1", newYear), "2025-12-31_23-05-00");
    EXPECT_EQ(format("'Recorded' d.M.yy 'at' h:mm a", "UTC0", sample),
              "Recorded 14.3.25 at 9:26 AM");
    EXPECT_EQ(format("EEE, MMM d yyyy HH:mm:ss.SSS", "UTC0", sample),
              "Fri, Mar 14 2025 09:26:53.123");
    EXPECT_EQ(format("EEEE MMMM", "UTC0", sample), "Friday March");
    EXPECT_EQ(format("hh 'o''clock' ''yy", "JST-9", sample), "06 o'clock '25");
    EXPECT_EQ(format("'unterminated HH", "UTC0", sample), "unterminated HH");
    EXPECT_EQ(format("h a", "<+15>-15", sample), "12 AM");  // 00:26 local
    EXPECT_EQ(format("'Glimmerbox' ✓ [HH]", "UTC0", sample), "Glimmerbox ✓ [09]");
}

}  // namespace
}  // namespace gb::linuxp
