// Guards against recordings lost or misplaced through their files: two recorders sharing a name,
// links and folders at the next name, the folder removed while recording, a full disk, stale
// temporaries of an interrupted finish, and intermediate folders that follow the umask.
#include <sys/mount.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Ne;
using ::testing::Optional;

// The file names a recording started `offset` seconds from now would get.
std::vector<std::string> nextNames(int from, int to) {
    std::vector<std::string> names;
    for (int offset = from; offset <= to; ++offset) {
        const time_t t = time(nullptr) + offset;
        struct tm local {};
        localtime_r(&t, &local);
        char name[64];
        strftime(name, sizeof name, "glimmerbox-%Y-%m-%d_%H-%M-%S.mov", &local);
        names.emplace_back(name);
    }
    return names;
}

// A small RAM file system; the tests that need one are skipped where it cannot be mounted.
class SmallDisk {
public:
    SmallDisk() { mounted_ = ::mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, "size=3m") == 0; }
    ~SmallDisk() {
        if (mounted_) ::umount2(dir_.path().c_str(), MNT_DETACH);
    }
    [[nodiscard]] bool mounted() const { return mounted_; }
    [[nodiscard]] const std::string& path() const { return dir_.path(); }
    // Fills the disk up to `leaveBytes` free.
    void fill(int64_t leaveBytes) const {
        std::ofstream filler(path() + "/filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (fs::space(path()).available > static_cast<uintmax_t>(leaveBytes) &&
               filler.write(block.data(), block.size())) {
            filler.flush();
        }
    }

private:
    TempDir dir_;
    bool mounted_ = false;
};

class FileFaultsE2ETest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(display_.ok() && mic_.ok());
        tone_ = mic_.playTone(120);
        env_ = sessionEnv(home_.path(), &display_, &mic_);
    }
    std::unique_ptr<Process> start(const std::string& folder, int seconds) {
        return std::make_unique<Process>(
            std::vector<std::string>{binaryPath(), "record", "--no-camera", "--quality", "medium",
                                     "--duration", std::to_string(seconds), "--output", folder},
            env_);
    }

    VirtualDisplay display_{640, 360};
    VirtualMicrophone mic_;
    std::unique_ptr<Process> tone_;
    TempDir home_;
    std::map<std::string, std::string> env_;
};

TEST_F(FileFaultsE2ETest, TwoRecordersInOneSecondNeverShareAFile) {
    TempDir out;
    // Both start just after a second begins, so that they name their files in the same second.
    const auto now = std::chrono::system_clock::now();
    std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(now) + 50ms);
    auto first = start(out.path(), 3);
    auto second = start(out.path(), 3);
    std::vector<std::string> saved;
    for (Process* p : {first.get(), second.get()}) {
        const auto code = p->wait(60s);
        ASSERT_TRUE(code);
        if (*code == 0) {
            saved.push_back(lastLine(p->stdoutText()));
        } else {
            EXPECT_FALSE(p->stderrText().empty()) << "a failure without a message";
        }
    }
    ASSERT_FALSE(saved.empty());
    if (saved.size() == 2) {
        EXPECT_NE(saved[0], saved[1]) << "both report the same file";
    }
    EXPECT_EQ(moviesIn(out.path()).size(), saved.size());
    for (const auto& path : saved) {
        EXPECT_NEAR(durationOf(path), 3.0, 0.4) << path << " is cut short";
    }
}

TEST_F(FileFaultsE2ETest, LinkAtTheNextNameIsReplacedAndStaleTemporariesGo) {
    TempDir out;
    TempDir elsewhere;
    const std::string target = elsewhere.path() + "/victim";
    for (const auto& name : nextNames(-1, 12)) fs::create_symlink(target, out.path() + "/" + name);
    const std::string staleMovie = out.path() + "/glimmerbox-2020-01-01_00-00-00.mov";
    std::ofstream(staleMovie) << "fragmented";
    std::ofstream(out.path() + "/.glimmerbox-2020-01-01_00-00-00.mov.finishing") << "half";

    auto p = start(out.path(), 2);
    ASSERT_EQ(p->wait(60s), 0) << p->stdoutText() << p->stderrText();
    const std::string path = lastLine(p->stdoutText());
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path))) << path;
    EXPECT_FALSE(fs::exists(fs::symlink_status(target))) << "the link was followed";
    ASSERT_TRUE(probe(path));
    EXPECT_TRUE(fs::exists(staleMovie));
    EXPECT_FALSE(fs::exists(out.path() + "/.glimmerbox-2020-01-01_00-00-00.mov.finishing"));
}

TEST_F(FileFaultsE2ETest, FolderAtTheNextNameFailsTheStartAndIsLeftAlone) {
    TempDir out;
    const auto names = nextNames(-1, 12);
    for (const auto& name : names) {
        fs::create_directory(out.path() + "/" + name);
        std::ofstream(out.path() + "/" + name + "/keep") << "mine";
    }
    auto p = start(out.path(), 2);
    EXPECT_THAT(p->wait(60s), Optional(Ne(0)));
    EXPECT_THAT(p->stdoutText() + p->stderrText(),
                HasSubstr("a folder of that name is in the way"));
    for (const auto& name : names) EXPECT_TRUE(fs::exists(out.path() + "/" + name + "/keep"));
}

// A removed file is saved again under its name; a removed folder is a failure that says so.
TEST_F(FileFaultsE2ETest, FileOrFolderRemovedWhileRecordingAndNewFoldersArePrivate) {
    for (const bool folderToo : {false, true}) {
        SCOPED_TRACE(folderToo ? "folder removed" : "file removed");
        TempDir base;
        const mode_t previous = ::umask(0);
        auto p = start(base.path() + "/a/b/c", 3);
        ::umask(previous);
        ASSERT_TRUE(p->waitForOutput("Recording started successfully", 20s)) << p->stdoutText();
        for (const char* folder : {"/a", "/a/b", "/a/b/c"}) {
            struct stat st {};
            ASSERT_EQ(::stat((base.path() + folder).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, 0700u) << folder;
        }
        const auto written = moviesIn(base.path() + "/a/b/c");
        ASSERT_EQ(written.size(), 1u);
        fs::remove_all(folderToo ? fs::path(base.path() + "/a") : fs::path(written[0]));
        const auto code = p->wait(60s);
        ASSERT_TRUE(code);
        if (folderToo) {
            EXPECT_NE(*code, 0) << p->stdoutText();
            EXPECT_THAT(p->stderrText(), HasSubstr("was removed while recording"));
        } else {
            EXPECT_EQ(*code, 0) << p->stderrText();
            EXPECT_NEAR(durationOf(written[0]), 3.0, 0.4);
        }
    }
}

TEST_F(FileFaultsE2ETest, FullDiskAtTheStartLeavesNoFile) {
    SmallDisk disk;
    if (!disk.mounted()) GTEST_SKIP() << "tmpfs cannot be mounted here";
    disk.fill(0);
    auto p = start(disk.path(), 2);
    EXPECT_THAT(p->wait(60s), Optional(Ne(0)));
    EXPECT_THAT(p->stdoutText() + p->stderrText(), HasSubstr("the disk is full"));
    EXPECT_TRUE(moviesIn(disk.path()).empty());
}

TEST_F(FileFaultsE2ETest, FullDiskWhileRecordingEndsItAndKeepsWhatWasWritten) {
    SmallDisk disk;
    if (!disk.mounted()) GTEST_SKIP() << "tmpfs cannot be mounted here";
    disk.fill(96 * 1024);  // a few seconds of a still screen
    auto p = start(disk.path(), 60);
    // Ends long before the minute asked for, as a failure that says why.
    EXPECT_THAT(p->wait(30s), Optional(Ne(0))) << "the recording went on after the disk was full";
    EXPECT_THAT(p->stderrText(), HasSubstr("the disk is full"));
    const std::string out = p->stdoutText();
    EXPECT_LE(countOf(out, "AssetWriter not in writing state: 3\n"), 1u) << out;
    const auto kept = moviesIn(disk.path());
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_GT(durationOf(kept[0]), 0.3);
}

}  // namespace
}  // namespace gb::e2e
