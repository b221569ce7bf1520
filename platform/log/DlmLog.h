#pragma once

#include "TextEscape.h"

#include <android/log.h>

#include <cstring>
#include <string>

// Platform log tags of the service.
#define DLM_MANAGER_TAG "dlm_manager"
#define DLM_BINDER_TAG "dlm_binder_client"

// The service's one logging family, by tag. Levels: DEBUG for tracing, INFO for what was done
// and for a caller's request that found nothing, WARN for a refused request or a degraded
// service, ERROR for a fault of the service itself (its files, its database, its IPC).
#define DLM_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGW(...) __android_log_print(ANDROID_LOG_WARN, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, DLM_MANAGER_TAG, __VA_ARGS__)
#define BINDER_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGI(...) __android_log_print(ANDROID_LOG_INFO, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGW(...) __android_log_print(ANDROID_LOG_WARN, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, DLM_BINDER_TAG, __VA_ARGS__)

namespace dlm {

// One message, one line: a caller's text in a message (an identifier, a URL) cannot start a
// forged line or send terminal controls. The format's trailing newline is dropped; the rest is
// escaped by escapeText.
inline std::string escapeLogMessage(const char *message)
{
    size_t length = std::strlen(message);
    if (length > 0 && message[length - 1] == '\n')
        --length;
    return escapeText(message, length);
}

// Installs the escaping in front of liblog's standard-error writer, for every tag.
inline void installEscapingLogger()
{
    __android_log_set_logger([](const __android_logger_data *data, const char *message) {
        __android_log_stderr_logger(data, escapeLogMessage(message).c_str());
    });
}

} // namespace dlm
