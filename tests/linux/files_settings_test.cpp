// Folders, settings and dates, in a temporary home (the user's own files are never touched).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/xdg_files.h"

namespace gb::linuxp {
namespace {

using fakes::LogCapture;
using fakes::ScopedEnvironment;
using fakes::TempDirectory;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

unsigned modeOf(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return 0;
    return info.st_mode & 07777;
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
        environment_.set("HOME", home());
        environment_.unset("XDG_CONFIG_HOME");
        environment_.unset("XDG_DOCUMENTS_DIR");
        std::filesystem::create_directories(home());
    }
    std::string home() const { return dir_ / "home"; }

    TempDirectory dir_;
    ScopedEnvironment environment_;
};

// ---- Documents -------------------------------------------------------------------------------

using DocumentsFolderTest = TemporaryHomeTest;

TEST_F(DocumentsFolderTest, ReadsTheUserDirsFileWithHomeExpansionAndEscapes) {
    XdgFileSystem files;
    EXPECT_EQ(files.documentsDirectory(), home() + "/Documents");
    writeFile(home() + "/.config/user-dirs.dirs",
              "# written by xdg-user-dirs-update\n"
              "XDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
              "XDG_DOCUMENTS_DIR=\"$HOME/first\"\n"
              "  XDG_DOCUMENTS_DIR=\"$HOME/My \\\"Docs\\\" \\$x\"\n");
    EXPECT_EQ(files.documentsDirectory(), home() + "/My \"Docs\" $x");  // the last one counts

    // A value that is neither under $HOME nor absolute does not count.
    writeFile(home() + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"Documents2\"\n");
    EXPECT_EQ(files.documentsDirectory(), home() + "/Documents");
}

TEST_F(DocumentsFolderTest, UsesXdgConfigHomeAndTheEnvironmentFirstAndNeedsAHome) {
    XdgFileSystem files;
    writeFile(home() + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/from-home\"\n");
    writeFile(dir_ / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/shared docs\"\n");
    environment_.set("XDG_CONFIG_HOME", dir_ / "config");
    EXPECT_EQ(files.documentsDirectory(), "/srv/shared docs");
    environment_.set("XDG_DOCUMENTS_DIR", "$HOME/from-environment");
    EXPECT_EQ(files.documentsDirectory(), home() + "/from-environment");
    environment_.set("XDG_DOCUMENTS_DIR", "/data/docs");
    EXPECT_EQ(files.documentsDirectory(), "/data/docs");

    // Without a home, nothing in terms of $HOME helps.
    environment_.unset("XDG_DOCUMENTS_DIR");
    writeFile(dir_ / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Documents\"\n");
    environment_.unset("HOME");
    EXPECT_EQ(files.documentsDirectory(), std::nullopt);
    environment_.set("HOME", "");
    EXPECT_EQ(files.documentsDirectory(), std::nullopt);
}

// ---- folders and files -----------------------------------------------------------------------

using FileSystemTest = TemporaryHomeTest;

TEST_F(FileSystemTest, CreatesPrivateFoldersWithTheirParentsWhateverTheUmask) {
    XdgFileSystem files;
    const mode_t previous = ::umask(0277);  // would leave new folders unwritable
    const std::string leaf = home() + "/Documents/Glimmerbox Recordings/nested";
    const auto created = files.createDirectory(leaf, true);
    ::umask(previous);
    ASSERT_TRUE(created.ok()) << created.error().textualForm();
    EXPECT_EQ(modeOf(home() + "/Documents"), 0700u);
    EXPECT_EQ(modeOf(home() + "/Documents/Glimmerbox Recordings"), 0700u);
    EXPECT_EQ(modeOf(leaf), 0700u);

    // An existing folder is success and keeps its mode.
    ::chmod(home().c_str(), 0755);
    EXPECT_TRUE(files.createDirectory(home(), true).ok());
    EXPECT_TRUE(files.createDirectory(home(), false).ok());
    EXPECT_EQ(modeOf(home()), 0755u);
    EXPECT_TRUE(files.createDirectory(leaf + "/", true).ok());
}

TEST_F(FileSystemTest, ReportsWhyAFolderCannotBeMade) {
    XdgFileSystem files;
    const auto missingParent = files.createDirectory(home() + "/a/b", false);
    ASSERT_FALSE(missingParent.ok());
    EXPECT_EQ(missingParent.error().code, ENOENT);
    EXPECT_EQ(missingParent.error().localizedDescription, "No such file or directory");

    writeFile(home() + "/Documents", "a file where the folder should be");
    const auto underFile = files.createDirectory(home() + "/Documents/Glimmerbox Recordings", true);
    ASSERT_FALSE(underFile.ok());
    EXPECT_EQ(underFile.error().textualForm(),
              "Error Domain=POSIX Code=" + std::to_string(ENOTDIR) + " \"Not a directory\"");
    const auto fileItself = files.createDirectory(home() + "/Documents", true);
    ASSERT_FALSE(fileItself.ok());
    EXPECT_EQ(fileItself.error().localizedDescription, "Not a directory");

    // A folder this user may not write into.
    const std::string locked = dir_ / "locked";
    ASSERT_TRUE(std::filesystem::create_directory(locked));
    ::chmod(dir_.path().c_str(), 0755);
    ::chmod(locked.c_str(), 0555);
    const int code = fakes::runUnprivileged([&] {
        const auto result = XdgFileSystem().createDirectory(locked + "/Recordings/x", true);
        return result.ok() ? 0 : result.error().code;
    });
    EXPECT_EQ(code, EACCES);
}

TEST_F(FileSystemTest, TellsAndRemovesFilesFoldersAndLinks) {
    XdgFileSystem files;
    const std::string file = home() + "/glimmerbox-2025-03-14_09-26-53.mov";
    EXPECT_FALSE(files.fileExists(file));
    writeFile(file, "movie");
    EXPECT_TRUE(files.fileExists(file));
    EXPECT_TRUE(files.removeItem(file).ok());
    EXPECT_FALSE(files.fileExists(file));

    const auto missing = files.removeItem(file);
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().localizedDescription, "No such file or directory");

    writeFile(home() + "/tree/a/b.txt", "x");
    EXPECT_TRUE(files.removeItem(home() + "/tree").ok());
    EXPECT_FALSE(std::filesystem::exists(home() + "/tree"));

    // A link to nothing does not exist as a file but can be removed.
    std::filesystem::create_symlink(home() + "/nowhere", home() + "/dangling");
    EXPECT_FALSE(files.fileExists(home() + "/dangling"));
    EXPECT_TRUE(files.removeItem(home() + "/dangling").ok());
    EXPECT_FALSE(std::filesystem::is_symlink(home() + "/dangling"));
}

// ---- settings --------------------------------------------------------------------------------

using SettingsTest = TemporaryHomeTest;

TEST_F(SettingsTest, TheFileLivesInTheXdgConfigFolder) {
    EXPECT_EQ(QSettingsDefaultsStore::defaultFilePath(),
              home() + "/.config/Glimmerbox/Glimmerbox.conf");
    environment_.set("XDG_CONFIG_HOME", dir_ / "config");
    EXPECT_EQ(QSettingsDefaultsStore::defaultFilePath(),
              dir_ / "config/Glimmerbox/Glimmerbox.conf");
    EXPECT_EQ(QSettingsDefaultsStore().filePath(), dir_ / "config/Glimmerbox/Glimmerbox.conf");
    environment_.unset("XDG_CONFIG_HOME");
    environment_.unset("HOME");
    EXPECT_EQ(QSettingsDefaultsStore::defaultFilePath(), std::nullopt);

    // With nowhere to keep them, settings read as absent and a write says why it failed.
    QSettingsDefaultsStore nowhere;
    LogCapture logs;
    nowhere.setBool(true, "vsCodeAutomationEnabled");
    EXPECT_EQ(nowhere.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_THAT(logs.lines()[0], StartsWith("❌ Failed to save setting vsCodeAutomationEnabled"));
}

TEST_F(SettingsTest, ValuesSurviveARestart) {
    const std::string folder = home() + "/Movies/Talks #1 & 100%";
    {
        QSettingsDefaultsStore store;
        EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
        EXPECT_EQ(store.urlForKey("customSaveLocation"), std::nullopt);
        store.setBool(true, "vsCodeAutomationEnabled");
        store.setURL(folder, "customSaveLocation");
        EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), true);
    }
    const std::string file = home() + "/.config/Glimmerbox/Glimmerbox.conf";
    const std::string text = readFile(file);
    EXPECT_THAT(text, HasSubstr("vsCodeAutomationEnabled=true"));
    EXPECT_THAT(text, HasSubstr("customSaveLocation=file://" + home() +
                                "/Movies/Talks%20%231%20&%20100%25"));

    QSettingsDefaultsStore restarted;
    EXPECT_EQ(restarted.boolForKey("vsCodeAutomationEnabled"), true);
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);
    restarted.setBool(false, "vsCodeAutomationEnabled");
    EXPECT_EQ(QSettingsDefaultsStore().boolForKey("vsCodeAutomationEnabled"), false);

    // A relative path is not a folder URL: refused with a line, the old value kept.
    LogCapture logs;
    restarted.setURL("relative/folder", "customSaveLocation");
    EXPECT_EQ(restarted.urlForKey("customSaveLocation"), folder);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_THAT(logs.lines()[0], HasSubstr("is not an absolute path"));
}

TEST_F(SettingsTest, ValuesOfTheWrongFormReadAsAbsent) {
    writeFile(home() + "/.config/Glimmerbox/Glimmerbox.conf",
              "[General]\nbanana=banana\nfive=5\none=1\nzero=0\nyes=true\nno=false\n"
              "list=a, b\nrelative=some/folder\nabsolute=/srv/recordings\n"
              "url=file:///srv/my%20recordings\nweb=https://example.com/recordings\n"
              "remote=file://fileserver/recordings\nempty=\n");
    QSettingsDefaultsStore store;
    const std::vector<std::pair<std::string, std::optional<bool>>> bools{
        {"banana", {}}, {"five", {}}, {"one", true},    {"zero", false}, {"yes", true},
        {"no", false},  {"list", {}}, {"absolute", {}}, {"empty", {}},   {"missing", {}}};
    for (const auto& [key, value] : bools) EXPECT_EQ(store.boolForKey(key), value) << key;
    const std::vector<std::pair<std::string, std::optional<std::string>>> urls{
        {"relative", {}},
        {"absolute", "/srv/recordings"},
        {"url", "/srv/my recordings"},
        {"web", {}},
        {"remote", {}},
        {"yes", {}},
        {"list", {}},
        {"empty", {}}};
    for (const auto& [key, value] : urls) EXPECT_EQ(store.urlForKey(key), value) << key;
}

TEST_F(SettingsTest, ADamagedFileReadsAsEmptyAndIsKeptAsideWhenWritten) {
    const std::string file = home() + "/.config/Glimmerbox/Glimmerbox.conf";
    // Qt parses part of it (vsCodeAutomationEnabled would read true) but flags it as damaged.
    const std::string damaged = "[General\nvsCodeAutomationEnabled=true\n\xff\xfe=1\nother=5\n";
    writeFile(file, damaged);
    LogCapture logs;
    QSettingsDefaultsStore store;
    EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
    EXPECT_EQ(store.urlForKey("customSaveLocation"), std::nullopt);
    ASSERT_EQ(logs.lines().size(), 1u);  // said once, not at every read
    EXPECT_EQ(logs.lines()[0], "⚠️ Settings file " + file +
                                   " cannot be read (the file is damaged); using the defaults");

    store.setBool(true, "vsCodeAutomationEnabled");
    ASSERT_EQ(logs.lines().size(), 2u);
    EXPECT_EQ(logs.lines()[1], "⚠️ Settings file " + file + " was damaged; kept it as " + file +
                                   ".broken and started a new one");
    EXPECT_EQ(readFile(file + ".broken"), damaged);
    EXPECT_THAT(readFile(file), Not(HasSubstr("other")));
    EXPECT_EQ(QSettingsDefaultsStore().boolForKey("vsCodeAutomationEnabled"), true);
}

TEST_F(SettingsTest, AFileThatCannotBeWrittenIsReported) {
    // A folder stands where the settings file should be.
    const std::string file = home() + "/.config/Glimmerbox/Glimmerbox.conf";
    std::filesystem::create_directories(file);
    LogCapture logs;
    QSettingsDefaultsStore store;
    EXPECT_EQ(store.boolForKey("vsCodeAutomationEnabled"), std::nullopt);
    store.setBool(true, "vsCodeAutomationEnabled");
    ASSERT_FALSE(logs.lines().empty());
    EXPECT_EQ(logs.lines().back(), "❌ Failed to save setting vsCodeAutomationEnabled in " + file +
                                       ": the file cannot be read or written");
}

TEST_F(SettingsTest, ConcurrentReadersAndWritersSeeWholeValues) {
    QSettingsDefaultsStore store;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 10; ++i) {
                store.setBool((i + t) % 2 == 0, "flag" + std::to_string(t));
                store.setURL("/tmp/folder" + std::to_string(i), "url" + std::to_string(t));
                EXPECT_EQ(store.boolForKey("flag" + std::to_string(t)), (i + t) % 2 == 0);
                EXPECT_EQ(store.urlForKey("url" + std::to_string(t)),
                          "/tmp/folder" + std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    QSettingsDefaultsStore restarted;
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(restarted.boolForKey("flag" + std::to_string(t)), (9 + t) % 2 == 0);
        EXPECT_EQ(restarted.urlForKey("url" + std::to_string(t)), "/tmp/folder9");
    }
}

// ---- dates -----------------------------------------------------------------------------------

class DateFormatterTest : public ::testing::Test {
protected:
    // 2025-03-14 09:26:53.123 UTC, a Friday.
    static std::chrono::system_clock::time_point sample() {
        using namespace std::chrono;
        return sys_days{year{2025} / March / 14} + hours{9} + minutes{26} + seconds{53} +
               milliseconds{123};
    }
    std::string format(const std::string& pattern, const std::string& zone,
                       std::chrono::system_clock::time_point date = sample()) {
        environment_.set("TZ", zone);
        return LocaleDateFormatter().format(pattern, date);
    }
    ScopedEnvironment environment_;
};

TEST_F(DateFormatterTest, FormatsInLocalTimeWithTheUsualFieldsAndQuotedText) {
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "UTC0"), "2025-03-14_09-26-53");
    // New York had moved to summer time five days earlier: UTC-4.
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "EST5EDT,M3.2.0,M11.1.0"), "2025-03-14_05-26-53");
    using namespace std::chrono;
    const auto newYear = sys_days{year{2026} / January / 1} + minutes{5};
    EXPECT_EQ(format("yyyy-MM-dd_HH-mm-ss", "<-01>1", newYear), "2025-12-31_23-05-00");
    EXPECT_EQ(format("'Recorded' d.M.yy 'at' h:mm a", "UTC0"), "Recorded 14.3.25 at 9:26 AM");
    EXPECT_EQ(format("EEE, MMM d yyyy HH:mm:ss.SSS", "UTC0"), "Fri, Mar 14 2025 09:26:53.123");
    EXPECT_EQ(format("EEEE MMMM", "UTC0"), "Friday March");
    EXPECT_EQ(format("hh 'o''clock' ''yy", "JST-9"), "06 o'clock '25");
    EXPECT_EQ(format("'unterminated HH", "UTC0"), "unterminated HH");
    EXPECT_EQ(format("h a", "<+15>-15"), "12 AM");  // 00:26 local
    EXPECT_EQ(format("'Glimmerbox' ✓ [HH]", "UTC0"), "Glimmerbox ✓ [09]");
}

}  // namespace
}  // namespace gb::linuxp
