# Imports Debian's Android liblog and libutils as android::log and android::utils. Debian ships
# them in a private directory without pkg-config files, so they are imported by full path; build
# trees then get a RUNPATH to them and start without LD_LIBRARY_PATH. The project and the
# installed client package config both include this file; it sets DLM_ANDROID_MISSING to the
# Debian packages to install when something is not found, and defines the targets otherwise.
set(DLM_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_library(DLM_ANDROID_LOG_LIB log PATHS ${DLM_ANDROID_LIBDIR} NO_DEFAULT_PATH)
find_library(DLM_ANDROID_UTILS_LIB utils PATHS ${DLM_ANDROID_LIBDIR} NO_DEFAULT_PATH)
find_path(DLM_ANDROID_INCLUDE_DIR android/log.h PATHS /usr/include/android NO_DEFAULT_PATH)
find_path(DLM_ANDROID_UTILS_INCLUDE_DIR utils/Errors.h PATHS /usr/include/android NO_DEFAULT_PATH)

set(DLM_ANDROID_MISSING)
if(NOT DLM_ANDROID_LOG_LIB OR NOT DLM_ANDROID_INCLUDE_DIR)
    list(APPEND DLM_ANDROID_MISSING android-liblog-dev)
endif()
if(NOT DLM_ANDROID_UTILS_LIB OR NOT DLM_ANDROID_UTILS_INCLUDE_DIR)
    list(APPEND DLM_ANDROID_MISSING android-libutils-dev)
endif()

if(NOT DLM_ANDROID_MISSING AND NOT TARGET android::log)
    add_library(android::log SHARED IMPORTED)
    set_target_properties(android::log PROPERTIES
        IMPORTED_LOCATION ${DLM_ANDROID_LOG_LIB}
        INTERFACE_INCLUDE_DIRECTORIES ${DLM_ANDROID_INCLUDE_DIR})
endif()
if(NOT DLM_ANDROID_MISSING AND NOT TARGET android::utils)
    add_library(android::utils SHARED IMPORTED)
    set_target_properties(android::utils PROPERTIES
        IMPORTED_LOCATION ${DLM_ANDROID_UTILS_LIB}
        INTERFACE_INCLUDE_DIRECTORIES ${DLM_ANDROID_UTILS_INCLUDE_DIR}
        INTERFACE_LINK_LIBRARIES android::log)
endif()
