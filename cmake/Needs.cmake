# need(<variable> <option> <what> [<package>...]): Unless the variable is true, an error where the option
# is ON, and where it is AUTO a line about what is left out.
function(need variable option what)
    if(${variable})
        return()
    endif()
    list(JOIN ARGN " " packages)
    set(way "apt-get install ${packages}")
    if(NOT packages)
        set(way "add its prefix to CMAKE_PREFIX_PATH") # no package is known to have it
    elseif(packages MATCHES "-dev" AND SQLWRAPPER_SYSROOT_COMMAND)
        set(way ${SQLWRAPPER_SYSROOT_COMMAND}) # the packages would be this machine's
    endif()
    if(${option} STREQUAL "AUTO")
        message(STATUS "Left out, no ${what}: ${way}")
    else()
        message(FATAL_ERROR " No ${what}: ${way}, or turn ${option} off")
    endif()
endfunction()
