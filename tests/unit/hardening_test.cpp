#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

// The checks that the build's flags put into every program, tried on faults of this program's own.

namespace {

/** A number that the compiler does not see through. */
size_t at_run_time(size_t number)
{
    volatile size_t hidden = number;
    return hidden;
}

TEST(HardeningDeathTest, AnIndexPastTheEndOfAVectorEndsTheProcess)
{
    const std::vector<int> numbers(at_run_time(3));
    EXPECT_DEATH(std::exit(numbers[at_run_time(3)]), "Assertion|heap-buffer-overflow");
}

#if defined(_FORTIFY_SOURCE) && _FORTIFY_SOURCE >= 3

TEST(HardeningDeathTest, WritingPastASizeThatIsKnownAtRunTimeOnlyEndsTheProcess)
{
    const size_t size = at_run_time(16);
    EXPECT_DEATH(
        {
            char* area = static_cast<char*>(std::malloc(size));
            std::memset(area, 'x', at_run_time(17));
            std::exit(area[at_run_time(0)]);
        },
        "buffer overflow detected");
}

#endif

} // namespace
