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

class ReplaceFile : public testing::Test
{
protected:
    void SetUp() override
    {
        failing.clear();
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
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhenTheyCanNotBeReplaced)
{
    failing = {"rename"};
    EXPECT_EQ(settingsd::replace_file(path, "brand new", settled), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");
}

TEST_F(ReplaceFile, TouchesNothingInAFolderThatCanNotBeSynced)
{
    // One that may be written to and not be read, by anybody but root.
    std::filesystem::create_directory(folder.path() / "unread");
    const std::string other = folder.file("unread/settings.json");
    ASSERT_EQ(settingsd::replace_file(other, "old", settled), 0);
    ::chmod(folder.path().c_str(), 0711);
    ::chmod((folder.path() / "unread").c_str(), 0333);
    const bool isRoot = ::geteuid() == 0;
    if (isRoot) {
        constexpr uid_t kNobody = 65534;
        ASSERT_EQ(::seteuid(kNobody), 0);
    }
    EXPECT_EQ(settingsd::replace_file(other, "brand new", settled), -EACCES);
    if (isRoot) {
        ASSERT_EQ(::seteuid(0), 0);
    }
    ::chmod((folder.path() / "unread").c_str(), 0700);
    EXPECT_EQ(folder.read("unread/settings.json"), "old");
    EXPECT_FALSE(folder.has("unread/settings.json.tmp"));
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
