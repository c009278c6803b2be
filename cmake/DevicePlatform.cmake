include(CheckCXXSourceCompiles)

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

# check_reporter_linkage(): an error where libframework exports logAssertFailed() with the other linkage.
# A library for which neither links has other needs, which are the linker's to tell.
function(check_reporter_linkage)
    set(CMAKE_REQUIRED_LIBRARIES platform::framework)
    set(CMAKE_REQUIRED_LINK_OPTIONS LINKER:--unresolved-symbols=ignore-in-shared-libs)
    set(CMAKE_REQUIRED_QUIET ON)
    foreach(linkage ${SQLWRAPPER_FRAMEWORK_LINKAGE} C C++)
        unset(reporter_links CACHE)
        check_cxx_source_compiles("
            extern \"${linkage}\" void logAssertFailed(const char*, const char*, int, const char*);
            int main() { logAssertFailed(\"\", \"\", 0, \"\"); }" reporter_links)
        if(reporter_links AND NOT linkage STREQUAL SQLWRAPPER_FRAMEWORK_LINKAGE)
            message(FATAL_ERROR
                " The device's libframework exports logAssertFailed() with ${linkage} linkage: set SQLWRAPPER_FRAMEWORK_LINKAGE to ${linkage}")
        elseif(reporter_links)
            break()
        endif()
    endforeach()
endfunction()
