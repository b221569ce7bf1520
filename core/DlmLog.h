#pragma once

#include <android/log.h>

// Platform log tags of the service.
#define DLM_MANAGER_TAG "dlm_manager"
#define DLM_BINDER_TAG "dlm_binder_client"

#define DLM_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGW(...) __android_log_print(ANDROID_LOG_WARN, DLM_MANAGER_TAG, __VA_ARGS__)
#define DLM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, DLM_MANAGER_TAG, __VA_ARGS__)
