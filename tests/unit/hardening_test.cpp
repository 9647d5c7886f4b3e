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

TEST(HardeningDeathTest, an_index_past_the_end_of_a_vector_ends_the_process)
{
    const std::vector<int> numbers(at_run_time(3));
    EXPECT_DEATH(std::exit(numbers[at_run_time(3)]), "Assertion|heap-buffer-overflow");
}

#if defined(_FORTIFY_SOURCE) && _FORTIFY_SOURCE >= 3

TEST(HardeningDeathTest, writing_past_a_size_that_is_known_at_run_time_only_ends_the_process)
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
