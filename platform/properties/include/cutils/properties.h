// <cutils/properties.h>: Android's system properties, for a Linux host. Here they live in the
// process; a key that is not set is read from the environment: dots become underscores, letters
// upper case ("vendor.vexa.log.msg" is VENDOR_VEXA_LOG_MSG).
//
// Names, signatures and results are the device's. Both functions: [any thread].
#pragma once

// Sizes of a device, terminators included. No limit on keys since Android 8: the constant is kept
// for buffers.
#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Writes the value of `key` to `value`, which has room for PROPERTY_VALUE_MAX characters, and
// returns its length, at most 91; always terminated. A missing and an empty property are the same:
// `default_value` takes their place, or "" when that is null.
int property_get(const char* key, char* value, const char* default_value);

// Sets `key`; a null or empty `value` unsets it.
//   0         set
//   negative  `key` is null or empty, or the value has 92 characters or more (allowed for "ro.*")
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
