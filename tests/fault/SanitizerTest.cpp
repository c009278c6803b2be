#include <gtest/gtest.h>

#include <climits>

// Where the sanitizers are on: whether they are.
namespace {

// Both reach their error at run time only.
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

} // namespace
