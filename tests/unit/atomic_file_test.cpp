#include "atomic_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/disk_in_pieces.hpp"
#include "support/temp_folder.hpp"

// In which order a file is replaced: only so does a power cut find the old contents or the new, whole.

namespace {

using testing::ElementsAre;
using testing_support::DiskInPieces;
using testing_support::TempFolder;

std::vector<std::string> steps;
std::vector<std::string> failing; // the steps that the disk refuses, each as often as it stands here

int take(const std::string& step)
{
    steps.push_back(step);
    const auto found = std::find(failing.begin(), failing.end(), step);
    if (found != failing.end()) {
        failing.erase(found);
        errno = EIO;
        return -1;
    }
    return 0;
}

bool failingAfterSync = false; // a rename fails too, once the folder could not be synced
bool fileSystemKnowsNoLinks = false;

/** Somebody who is not root, for as long as it lives. */
class Nobody
{
public:
    Nobody() { EXPECT_EQ(::seteuid(isRoot_ ? kNobody : ::geteuid()), 0); }
    ~Nobody() { EXPECT_EQ(::seteuid(isRoot_ ? 0 : ::geteuid()), 0); }
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;

private:
    static constexpr uid_t kNobody = 65534;
    bool isRoot_ = ::geteuid() == 0;
};

class ReplaceFile : public testing::Test
{
protected:
    void SetUp() override
    {
        failing.clear();
        fileSystemKnowsNoLinks = false;
        ASSERT_EQ(settingsd::replace_file(path, "old", settled), 0);
        steps.clear();
    }

    TempFolder folder;
    std::string path = folder.file("settings.json");
    bool settled = false;
};

} // namespace

extern "C" int fsync(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    const int result =
        take(S_ISDIR(status.st_mode) ? "sync folder" : "sync file of " + std::to_string(status.st_size));
    return result != 0 ? result : static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int close(int fd)
{
    const int result = static_cast<int>(syscall(SYS_close, fd));
    return !failing.empty() && failing.front() == "close" ? take("close") : result;
}

extern "C" int link(const char* from, const char* to)
{
    if (fileSystemKnowsNoLinks) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

extern "C" int rename(const char* from, const char* to)
{
    const bool afterSync = !steps.empty() && steps.back() == "sync folder";
    const int result = take("rename");
    if (failingAfterSync && afterSync) {
        errno = EIO;
        return -1;
    }
    return result != 0 ? result : static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST_F(ReplaceFile, SyncsTheNewContentsBeforeTheyTakeTheNameAndTheFolderAfter)
{
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), 0);
    EXPECT_THAT(steps, ElementsAre("sync file of 9", "rename", "sync folder"));
    EXPECT_EQ(folder.read("settings.json"), "brand new");
}

TEST_F(ReplaceFile, WritesAndReadsToTheEndInPiecesAndAfterSignals)
{
    for (const std::size_t piece : {1, 2, 9}) {
        {
            const DiskInPieces disk(piece);
            EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), 0);
        }
        EXPECT_EQ(folder.read("settings.json"), "brand new");
        const DiskInPieces disk(piece);
        std::string contents;
        EXPECT_EQ(settingsd::read_file(path, 9, contents), 0);
        EXPECT_EQ(contents, "brand new");
        EXPECT_EQ(settingsd::read_file(path, 8, contents), -EFBIG);
    }
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhenTheNewCanNotBeSynced)
{
    failing = {"sync file of 9"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_THAT(steps, ElementsAre("sync file of 9"));
    EXPECT_EQ(folder.read("settings.json"), "old");
    EXPECT_FALSE(folder.has("settings.json.tmp"));
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhenTheNewAreLostAsTheirFileIsClosed)
{
    failing = {"close"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");
    EXPECT_FALSE(folder.has("settings.json.tmp"));
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhenTheyCanNotBeReplaced)
{
    failing = {"rename"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");
}

TEST_F(ReplaceFile, TouchesNothingInAFolderThatCanNotBeSyncedOrWrittenTo)
{
    // Folders that may be written to and not be read, or read and not be written to, by anybody but root.
    std::filesystem::create_directory(folder.path() / "unread");
    std::filesystem::create_directory(folder.path() / "unwritten");
    const std::string other = folder.file("unread/settings.json");
    ASSERT_EQ(settingsd::replace_file(other, "old", settled), 0);
    ::chmod(folder.path().c_str(), 0711);
    ::chmod((folder.path() / "unread").c_str(), 0333);
    ::chmod((folder.path() / "unwritten").c_str(), 0555);
    std::string kept;
    {
        const Nobody nobody;
        EXPECT_EQ(settingsd::replace_file(other, "brand new", settled), -EACCES);
        EXPECT_EQ(settingsd::keep_aside(other, kept), -EACCES);
        EXPECT_EQ(settingsd::replace_file(folder.file("unwritten/settings.json"), "new", settled), -EACCES);
    }
    ::chmod((folder.path() / "unread").c_str(), 0700);
    EXPECT_EQ(folder.read("unread/settings.json"), "old");
    EXPECT_FALSE(folder.has("unread/settings.json.tmp"));
    EXPECT_EQ(kept, "");
}

TEST_F(ReplaceFile, GivesTheOldContentsTheirNameBackWhenTheFolderCanNotBeSynced)
{
    failing = {"sync folder"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_THAT(steps, ElementsAre("sync file of 9", "rename", "sync folder", "rename", "sync folder"));
    EXPECT_EQ(folder.read("settings.json"), "old");
    EXPECT_TRUE(settled);
    EXPECT_FALSE(folder.has("settings.json.old"));
}

TEST_F(ReplaceFile, CopiesTheOldContentsWhereTheFileSystemKnowsNoLinks)
{
    fileSystemKnowsNoLinks = true;
    failing = {"sync folder"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");

    const DiskInPieces unreadable(SIZE_MAX - 1, 1, EIO);
    std::string kept;
    EXPECT_EQ(settingsd::keep_aside(path, kept), -EIO);
}

TEST_F(ReplaceFile, LeavesNoFileBehindWhereThereWasNoneWhenTheFolderCanNotBeSynced)
{
    std::filesystem::remove(path);
    failing = {"sync folder"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_FALSE(folder.has("settings.json"));
    EXPECT_TRUE(settled);
}

TEST_F(ReplaceFile, TellsWhenARestartMayFindEitherContents)
{
    failing = {"sync folder", "sync folder"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");
    EXPECT_FALSE(settled);

    failing = {"sync file of 9"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_FALSE(settled) << "nothing was touched, and nothing is known better than before";
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), 0);
    EXPECT_TRUE(settled);
}

TEST_F(ReplaceFile, TellsWhenTheOldContentsCanNotGetTheirNameBack)
{
    failing = {"sync folder"};
    failingAfterSync = true;
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_FALSE(settled);
    failingAfterSync = false;
}

TEST_F(ReplaceFile, CallsAFileKeptAsideOnceItsSecondNameIsOnTheDisk)
{
    std::string kept;
    failing = {"sync folder"};
    EXPECT_EQ(settingsd::keep_aside(path, kept), -EIO);
    EXPECT_EQ(kept, "");
    EXPECT_FALSE(folder.has("settings.json.damaged-1"));

    steps.clear();
    EXPECT_EQ(settingsd::keep_aside(path, kept), 0);
    EXPECT_THAT(steps, ElementsAre("sync folder"));
    EXPECT_EQ(kept, path + ".damaged-1");
}

TEST(FollowLinks, GoesAsFarAsTheKernelDoes)
{
    constexpr int kLinks = 41;
    const TempFolder folder;
    folder.write("0", "");
    for (int link = 1; link <= kLinks; ++link) {
        std::filesystem::create_symlink(std::to_string(link - 1), folder.path() / std::to_string(link));
    }
    std::string target;
    for (const int link : {0, kLinks - 1}) {
        EXPECT_EQ(::access(folder.file(std::to_string(link)).c_str(), F_OK), 0);
        EXPECT_EQ(settingsd::follow_links(folder.file(std::to_string(link)), target), 0);
        EXPECT_EQ(target, folder.file("0"));
    }
    EXPECT_EQ(::access(folder.file(std::to_string(kLinks)).c_str(), F_OK), -1);
    EXPECT_EQ(settingsd::follow_links(folder.file(std::to_string(kLinks)), target), -ELOOP);
    EXPECT_EQ(settingsd::follow_links(folder.file("0/inside"), target), -ENOTDIR);
}
