#include <gtest/gtest.h>

#include <climits>
#include <memory>

// Where the sanitizers are on: whether they are.
namespace {

// The errors are reached at run time only.
volatile int most = INT_MAX;
volatile int behind = 1;

int wrappedAround()
{
    return most + 1;
}

int readFromAnOddAddress()
{
    alignas(int) char bytes[2 * sizeof(int)] = {};
    return *reinterpret_cast<const int*>(bytes + behind);
}

TEST(SanitizerDeathTest, SignedOverflowEndsTheProgram)
{
    EXPECT_DEATH(wrappedAround(), "");
}

TEST(SanitizerDeathTest, OddAddressOfAnIntEndsTheProgram)
{
    EXPECT_DEATH(readFromAnOddAddress(), "");
}

#ifdef TEST_ADDRESSES
int readBehindABlock()
{
    const std::unique_ptr<char[]> block(new char[1]());
    return block[behind];
}

TEST(SanitizerDeathTest, ReadingBehindABlockEndsTheProgram)
{
    EXPECT_DEATH(readBehindABlock(), "heap-buffer-overflow");
}
#endif

} // namespace
