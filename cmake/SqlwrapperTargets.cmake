# What the project's own targets are built with: linked privately, so that none of it reaches a user.

add_library(sqlwrapper_build INTERFACE)

# The warnings are the project's own; a user who adds it as a subdirectory has theirs.
if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(sqlwrapper_build INTERFACE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2
        -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
        $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>)
endif()

if(SQLWRAPPER_SANITIZE)
    set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_compile_options(sqlwrapper_build INTERFACE ${sanitizers})
    target_link_options(sqlwrapper_build INTERFACE ${sanitizers})
endif()

if(SQLWRAPPER_COVERAGE)
    target_compile_options(sqlwrapper_build INTERFACE --coverage -O0)
    target_link_options(sqlwrapper_build INTERFACE --coverage)
endif()
