# Debian ships Android's liblog and libutils without pkg-config files. Import them by full path so
# that build-tree binaries get a RUNPATH and start without LD_LIBRARY_PATH.
set(DLM_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_library(DLM_ANDROID_LOG_LIB log PATHS ${DLM_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(DLM_ANDROID_UTILS_LIB utils PATHS ${DLM_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_path(DLM_ANDROID_INCLUDE_DIR android/log.h PATHS /usr/include/android NO_DEFAULT_PATH REQUIRED)

add_library(android_log SHARED IMPORTED GLOBAL)
set_target_properties(android_log PROPERTIES
    IMPORTED_LOCATION ${DLM_ANDROID_LOG_LIB}
    IMPORTED_NO_SONAME FALSE
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${DLM_ANDROID_INCLUDE_DIR}
    INTERFACE_INCLUDE_DIRECTORIES ${DLM_ANDROID_INCLUDE_DIR})
add_library(android::log ALIAS android_log)

add_library(android_utils SHARED IMPORTED GLOBAL)
set_target_properties(android_utils PROPERTIES
    IMPORTED_LOCATION ${DLM_ANDROID_UTILS_LIB}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${DLM_ANDROID_INCLUDE_DIR}
    INTERFACE_INCLUDE_DIRECTORIES ${DLM_ANDROID_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES android_log)
add_library(android::utils ALIAS android_utils)

list(APPEND CMAKE_INSTALL_RPATH ${DLM_ANDROID_LIBDIR})
