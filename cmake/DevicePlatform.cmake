# find_device_library(<name>): the imported target platform::<name> for the device's lib<name>, from
# the linker's usual places, CMAKE_PREFIX_PATH, the sysroot, or SQLWRAPPER_<NAME>_LIBRARY.
function(find_device_library name)
    string(TOUPPER ${name} upper)
    set(variable SQLWRAPPER_${upper}_LIBRARY)
    find_library(${variable} ${name} DOC "The device's lib${name}")
    if(NOT EXISTS "${${variable}}")
        message(FATAL_ERROR
            " No lib${name} of the device: point ${variable} at it, add its prefix to CMAKE_PREFIX_PATH, or turn SQLWRAPPER_DEVICE_PLATFORM off")
    endif()
    add_library(platform::${name} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(platform::${name} PROPERTIES IMPORTED_LOCATION "${${variable}}")
endfunction()
