// The two property functions of a phone's C library. Declared here for C libraries that do not
// declare them.
#pragma once

#if __has_include(<sys/system_properties.h>)
#include <sys/system_properties.h>
#else
#define PROP_VALUE_MAX 92

extern "C" {
// Returns 0 on success.
int __system_property_set(const char* name, const char* value);
// Stores the value, at most PROP_VALUE_MAX bytes with its NUL. Returns the length of the value, or
// 0 if there is no such property.
int __system_property_get(const char* name, char* value);
}
#endif
