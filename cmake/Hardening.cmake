# Debian's hardening flags for every target, tests included: stack protector, format checks,
# _FORTIFY_SOURCE, RELRO and BIND_NOW. They are taken from dpkg-buildflags at configure time as
# the flags hardening=+all adds to hardening=-all, so -g/-O and the build type stay CMake's.
# PIE is the compiler's default on Debian. Without dpkg-buildflags the build is not hardened.
option(DLM_HARDENING "Build with dpkg-buildflags' hardening flags" ON)

# dlm_hardening_flags(VAR NAME): the words of dpkg-buildflags' NAME that only hardening adds.
function(dlm_hardening_flags var name)
    foreach(sign + -)
        execute_process(
            COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=${sign}all
                ${DLM_DPKG_BUILDFLAGS} --get ${name}
            OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
        if(failed)
            message(FATAL_ERROR "dpkg-buildflags --get ${name} failed")
        endif()
        separate_arguments(flags${sign} UNIX_COMMAND "${flags}")
    endforeach()
    list(REMOVE_ITEM flags+ ${flags-})
    set(${var} ${flags+} PARENT_SCOPE)
endfunction()

find_program(DLM_DPKG_BUILDFLAGS dpkg-buildflags)
if(DLM_HARDENING AND DLM_DPKG_BUILDFLAGS)
    dlm_hardening_flags(dlm_cxx CXXFLAGS)
    dlm_hardening_flags(dlm_cpp CPPFLAGS)
    dlm_hardening_flags(dlm_ld LDFLAGS)
    # _FORTIFY_SOURCE needs optimization (glibc warns at -O0) and hides calls from the
    # sanitizers' interceptors: Debug and sanitizer builds go without it.
    if(DLM_SANITIZE)
        list(FILTER dlm_cpp EXCLUDE REGEX "^-D_FORTIFY_SOURCE")
    else()
        list(TRANSFORM dlm_cpp REPLACE "^(-D_FORTIFY_SOURCE.*)$" "$<$<NOT:$<CONFIG:Debug>>:\\1>")
    endif()
    add_compile_options(${dlm_cxx} ${dlm_cpp})
    add_link_options(${dlm_ld})
    list(JOIN dlm_cxx " " dlm_shown)
    message(STATUS "Hardening: ${dlm_shown} (and _FORTIFY_SOURCE where optimized), link: ${dlm_ld}")
elseif(DLM_HARDENING)
    message(STATUS "Hardening: dpkg-buildflags not found, built without Debian's hardening flags")
endif()
