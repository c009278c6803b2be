#ifndef SQLWRAPPER_TESTS_SUPPORT_DECLARATIONS_H
#define SQLWRAPPER_TESTS_SUPPORT_DECLARATIONS_H

#include <type_traits>

namespace test {

// Compiles when a function, or one of its overloads, is declared with just this type:
//     static_assert(test::declared<double (Time::*)(Time&)>(&Time::diff));
template <typename Type> constexpr bool declared(Type)
{
    return true;
}

} // namespace test

#endif
