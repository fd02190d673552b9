// The Android log, as the whole daemon writes it: one tag, four priorities.
//
// The macros take a printf format and its arguments; the compiler checks them. Safe on any thread.
// They leave errno as it was only as far as liblog does: read errno before logging.
#pragma once

#include <android/log.h>

#define QUARN_LOG_TAG "QUARN"

#define QUARN_LOGD(...) \
    static_cast<void>(__android_log_print(ANDROID_LOG_DEBUG, QUARN_LOG_TAG, __VA_ARGS__))
#define QUARN_LOGI(...) \
    static_cast<void>(__android_log_print(ANDROID_LOG_INFO, QUARN_LOG_TAG, __VA_ARGS__))
#define QUARN_LOGW(...) \
    static_cast<void>(__android_log_print(ANDROID_LOG_WARN, QUARN_LOG_TAG, __VA_ARGS__))
#define QUARN_LOGE(...) \
    static_cast<void>(__android_log_print(ANDROID_LOG_ERROR, QUARN_LOG_TAG, __VA_ARGS__))
