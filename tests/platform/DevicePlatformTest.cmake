# Configures and builds the project against a device's own libraries, of which one may be missing.

set(options -D SQLWRAPPER_DEVICE_PLATFORM=ON -D SQLWRAPPER_BUILD_TESTS=OFF)
if(NOT CASE STREQUAL "TraceMissing")
    list(APPEND options -D SQLWRAPPER_TRACE_LIBRARY=${TRACE})
endif()
if(NOT CASE STREQUAL "FrameworkMissing")
    list(APPEND options -D SQLWRAPPER_FRAMEWORK_LIBRARY=${FRAMEWORK})
endif()

file(REMOVE_RECURSE ${BINARY})
execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${BINARY} -G ${GENERATOR}
        -D CMAKE_CXX_COMPILER=${COMPILER} ${options}
    RESULT_VARIABLE configured
    OUTPUT_QUIET
    ERROR_VARIABLE errors)
string(REGEX REPLACE "[ \n]+" " " errors "${errors}")

function(expect_missing name variable)
    string(CONCAT expected
        "SQLWRAPPER_DEVICE_PLATFORM is on, but the device's lib${name} was not found. "
        "Point ${variable} at it, add its prefix to CMAKE_PREFIX_PATH, or turn the option off "
        "to build the stand-in in platform/lib${name}.")
    string(FIND "${errors}" "${expected}" place)
    if(configured EQUAL 0 OR place EQUAL -1)
        message(FATAL_ERROR "Expected the configuration to fail with\n${expected}\nbut got\n${errors}")
    endif()
endfunction()

if(CASE STREQUAL "TraceMissing")
    expect_missing(trace SQLWRAPPER_TRACE_LIBRARY)
elseif(CASE STREQUAL "FrameworkMissing")
    expect_missing(framework SQLWRAPPER_FRAMEWORK_LIBRARY)
else()
    if(NOT configured EQUAL 0)
        message(FATAL_ERROR "${errors}")
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${BINARY} COMMAND_ERROR_IS_FATAL ANY)
endif()
