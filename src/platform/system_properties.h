// The two property functions of a phone's C library, for C libraries that do not declare them.
#pragma once

#if __has_include(<sys/system_properties.h>)
#include <sys/system_properties.h>
#else
#define PROP_VALUE_MAX 92

extern "C" {
// 0 on success.
int __system_property_set(const char* name, const char* value);
// Length of the value, which with its NUL fits PROP_VALUE_MAX bytes; 0 for an unknown property.
int __system_property_get(const char* name, char* value);
}
#endif
