#include "Environment.h"

#include <gmock/gmock.h>

int main(int argc, char** argv)
{
    // GoogleTest makes names with numbers in them, which have to come without digit grouping.
    testing::InitGoogleMock(&argc, argv);
    test::setLocaleOfRun();
    return RUN_ALL_TESTS();
}
