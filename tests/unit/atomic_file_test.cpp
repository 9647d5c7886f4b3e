#include "atomic_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/temp_folder.hpp"

// In which order a file is replaced: only so does a power cut find the old contents or the new, whole.

namespace {

using testing::ElementsAre;
using testing_support::TempFolder;

std::vector<std::string> steps;
std::string failing; // the step that the disk refuses

int take(const std::string& step)
{
    steps.push_back(step);
    if (step == failing) {
        errno = EIO;
        return -1;
    }
    return 0;
}

class ReplaceFile : public testing::Test
{
protected:
    void SetUp() override
    {
        failing.clear();
        ASSERT_EQ(settingsd::replace_file(path, "old"), 0);
        steps.clear();
    }

    TempFolder folder;
    std::string path = folder.file("settings.json");
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
    const int result = take("rename");
    return result != 0 ? result : static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST_F(ReplaceFile, syncs_the_new_contents_before_they_take_the_name_and_the_folder_after)
{
    EXPECT_EQ(settingsd::replace_file(path, "brand new"), 0);
    EXPECT_THAT(steps, ElementsAre("sync file of 9", "rename", "sync folder"));
    EXPECT_EQ(folder.read("settings.json"), "brand new");
}

TEST_F(ReplaceFile, keeps_the_old_contents_when_the_new_can_not_be_synced)
{
    failing = "sync file of 9";
    EXPECT_EQ(settingsd::replace_file(path, "brand new"), -EIO);
    EXPECT_THAT(steps, ElementsAre("sync file of 9"));
    EXPECT_EQ(folder.read("settings.json"), "old");
}

TEST_F(ReplaceFile, keeps_the_old_contents_when_they_can_not_be_replaced)
{
    failing = "rename";
    EXPECT_EQ(settingsd::replace_file(path, "brand new"), -EIO);
    EXPECT_EQ(folder.read("settings.json"), "old");
}

TEST_F(ReplaceFile, is_a_failure_when_the_folder_can_not_be_synced)
{
    failing = "sync folder";
    EXPECT_EQ(settingsd::replace_file(path, "brand new"), -EIO);
}
