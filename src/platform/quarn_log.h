// Writing to the Android log. The whole daemon uses one tag and four priorities.
//
// The macros take a printf format and its arguments, which the compiler checks. Thread-safe.
// Logging may change errno, so read errno before you log.
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
