#include "utils/replace_file.hpp"

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

#include "support/temp_folder.hpp"

// A file that is replaced holds the old contents or the new, whichever of the steps is refused. The system
// calls are replaced by ones that refuse what a test names, and pass everything else on.

namespace {

using testing::ElementsAre;
using testing_support::TempFolder;

struct
{
    std::string step;          // "write", "close", "rename", "fchmod", or none
    int error = 0;             // 0: "write" writes nothing and says so
    size_t room = 0;           // bytes that are written before "write" fails
    size_t most = SIZE_MAX;    // bytes that one call takes at most
    int interruptions = 0;     // calls of write that a signal ends first
    std::vector<mode_t> modes; // of the new file before each change of it
} disk;

bool refuses(const std::string& step)
{
    if (disk.step != step) {
        return false;
    }
    errno = disk.error;
    return true;
}

bool is_file(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

void note_mode(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    disk.modes.push_back(status.st_mode & 07777);
}

class ReplaceFile : public testing::Test
{
protected:
    void SetUp() override
    {
        disk = {};
        ASSERT_EQ(utils_replace_file(path, "old", 0600), 0);
    }
    void TearDown() override { disk = {}; }

    mode_t mode() const
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    void expect_old() const
    {
        disk = {};
        EXPECT_EQ(folder.read("a.conf"), "old");
        EXPECT_FALSE(folder.has("a.conf.tmp"));
    }

    TempFolder folder;
    std::string path = folder.file("a.conf");
};

} // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t size)
{
    if (disk.step.empty() && disk.most == SIZE_MAX && disk.interruptions == 0 && disk.modes.empty()) {
        return syscall(SYS_write, fd, data, size);
    }
    if (!is_file(fd)) {
        return syscall(SYS_write, fd, data, size);
    }
    if (disk.interruptions > 0) {
        --disk.interruptions;
        errno = EINTR;
        return -1;
    }
    size_t taken = std::min(size, disk.most);
    if (disk.step == "write") {
        taken = std::min(taken, disk.room);
        disk.room -= taken;
        if (taken == 0 && refuses("write")) {
            return disk.error != 0 ? -1 : 0;
        }
    }
    note_mode(fd);
    return syscall(SYS_write, fd, data, taken);
}

int close(int fd)
{
    const bool refused = is_file(fd) && refuses("close");
    const int error = errno;
    const int result = static_cast<int>(syscall(SYS_close, fd));
    if (refused) {
        errno = error;
    }
    return refused ? -1 : result;
}

int fchmod(int fd, mode_t mode) noexcept
{
    note_mode(fd);
    return refuses("fchmod") ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

int rename(const char* from, const char* to) noexcept
{
    return refuses("rename") ? -1 : static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
}

namespace {

TEST_F(ReplaceFile, TakesTheNewContentsAndLeavesNothingBesideIt)
{
    EXPECT_EQ(utils_replace_file(path, "brand new", 0600), 0);
    EXPECT_EQ(folder.read("a.conf"), "brand new");
    EXPECT_FALSE(folder.has("a.conf.tmp"));
    EXPECT_EQ(utils_replace_file(path, "", 0600), 0);
    EXPECT_EQ(folder.read("a.conf"), "");
}

TEST_F(ReplaceFile, MakesOneThatWasNotThere)
{
    EXPECT_EQ(utils_replace_file(folder.file("b.conf"), "new", 0600), 0);
    EXPECT_EQ(folder.read("b.conf"), "new");
}

TEST_F(ReplaceFile, HasTheModeAskedForWhateverTheUmaskAndBeforeAnythingIsInIt)
{
    for (const mode_t mask : {0, 0077, 0777}) {
        const mode_t before = umask(mask);
        for (const mode_t wanted : {0600, 0640, 0644}) {
            disk.modes = {0};
            EXPECT_EQ(utils_replace_file(path, "new", wanted), 0);
            EXPECT_EQ(mode(), wanted);
            EXPECT_THAT(disk.modes, ElementsAre(0U, 0600U & ~mask, wanted));
        }
        umask(before);
    }
}

TEST_F(ReplaceFile, IsWrittenToTheEndWhenTheDiskTakesItInPiecesAndSignalsInterrupt)
{
    disk.most = 2;
    disk.interruptions = 3;
    EXPECT_EQ(utils_replace_file(path, "brand new", 0600), 0);
    disk = {};
    EXPECT_EQ(folder.read("a.conf"), "brand new");
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhenThereIsRoomForNoneOrAPartOfTheNew)
{
    for (const size_t room : {0, 1, 8}) {
        disk.step = "write";
        disk.error = ENOSPC;
        disk.room = room;
        EXPECT_EQ(utils_replace_file(path, "brand new", 0600), -ENOSPC) << room;
        expect_old();
        disk.step = "write";
        disk.room = room;
        EXPECT_EQ(utils_replace_file(path, "brand new", 0600), -EIO) << room;
        expect_old();
    }
}

TEST_F(ReplaceFile, KeepsTheOldContentsWhateverOtherStepIsRefused)
{
    for (const char* step : {"fchmod", "close", "rename"}) {
        for (const int error : {ENOSPC, EIO, EDQUOT}) {
            disk.step = step;
            disk.error = error;
            EXPECT_EQ(utils_replace_file(path, "brand new", 0600), -error) << step;
            expect_old();
        }
    }
}

TEST_F(ReplaceFile, TakesThePlaceOfWhatAnEarlierProcessLeftBehind)
{
    for (const bool link : {false, true}) {
        folder.write("victim", "untouched");
        if (link) {
            std::filesystem::create_symlink(folder.file("victim"), path + ".tmp");
        } else {
            folder.write("a.conf.tmp", std::string(1000, 'x'));
        }
        errno = EBADF; // of some call before
        EXPECT_EQ(utils_replace_file(path, "new", 0600), 0);
        EXPECT_EQ(folder.read("a.conf"), "new");
        EXPECT_FALSE(folder.has("a.conf.tmp"));
        EXPECT_EQ(folder.read("victim"), "untouched");
    }
}

TEST_F(ReplaceFile, ReplacesALinkAndLeavesAloneWhatItLeadsTo)
{
    folder.write("victim", "untouched");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(folder.file("victim"), path);
    EXPECT_EQ(utils_replace_file(path, "new", 0600), 0);
    EXPECT_EQ(folder.read("a.conf"), "new");
    EXPECT_EQ(folder.read("victim"), "untouched");
}

TEST_F(ReplaceFile, FailsWhereAFolderIsInTheWayOrNoneIsThere)
{
    std::filesystem::create_directory(folder.file("folder"));
    EXPECT_EQ(utils_replace_file(folder.file("folder"), "new", 0600), -EISDIR);
    EXPECT_FALSE(folder.has("folder.tmp"));
    std::filesystem::create_directory(path + ".tmp");
    EXPECT_EQ(utils_replace_file(path, "new", 0600), -EISDIR);
    EXPECT_EQ(folder.read("a.conf"), "old");
    EXPECT_EQ(utils_replace_file(folder.file("absent/file"), "new", 0600), -ENOENT);
}

} // namespace
