# find_device_library(<name>): the imported target platform::<name> for the device's lib<name>, from
# the linker's usual places, CMAKE_PREFIX_PATH, the sysroot, or SQLWRAPPER_<NAME>_LIBRARY.
function(find_device_library name)
    string(TOUPPER ${name} upper)
    set(variable SQLWRAPPER_${upper}_LIBRARY)
    find_library(${variable} ${name} DOC "The device's lib${name}")
    if(NOT EXISTS "${${variable}}")
        message(FATAL_ERROR
            "SQLWRAPPER_DEVICE_PLATFORM is on, but the device's lib${name} was not found. "
            "Point ${variable} at it, add its prefix to CMAKE_PREFIX_PATH, or turn the option off "
            "to build the stand-in in platform/lib${name}.")
    endif()
    add_library(platform::${name} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(platform::${name} PROPERTIES IMPORTED_LOCATION "${${variable}}")
endfunction()
