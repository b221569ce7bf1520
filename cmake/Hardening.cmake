# Debian's hardening flags for every target, tests included: stack protector, format checks,
# _FORTIFY_SOURCE, RELRO and BIND_NOW. They are taken from dpkg-buildflags at configure time as
# the flags hardening=+all adds to hardening=-all, so -g/-O and the build type stay CMake's.
# PIE is the compiler's default on Debian. Stack-clash and control-flow protection, which later
# dpkg versions add, are added where the compiler takes them (Debian 12's C start files lack the
# control-flow mark, so linked programs do not carry it yet). Without dpkg-buildflags the build is
# not hardened.
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
    include(CheckCXXCompilerFlag)
    foreach(flag -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER "DLM_HAS${flag}" has_flag)
        check_cxx_compiler_flag(${flag} ${has_flag})
        if(${has_flag} AND NOT flag IN_LIST dlm_cxx)
            list(APPEND dlm_cxx ${flag})
        endif()
    endforeach()
    add_compile_options(${dlm_cxx} ${dlm_cpp})
    add_link_options(${dlm_ld})
    list(JOIN dlm_cxx " " dlm_shown)
    list(JOIN dlm_ld " " dlm_ld_shown)
    message(STATUS "Hardening: ${dlm_shown} (_FORTIFY_SOURCE unless Debug or sanitizer), "
        "link: ${dlm_ld_shown}")
elseif(DLM_HARDENING)
    message(STATUS "Hardening: dpkg-buildflags not found, built without Debian's hardening flags")
endif()
