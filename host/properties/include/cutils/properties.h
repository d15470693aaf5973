/*
 * System properties for host builds.
 *
 * The device's libcutils reads these from the property service; on a host
 * there is none, so this library keeps an in-process store with the same
 * calls and the same parsing rules. Debian's libcutils has no property
 * functions at all, and its <cutils/properties.h> does not compile on a host;
 * this header takes its place on the include path.
 */
#ifndef QRNHOST_CUTILS_PROPERTIES_H
#define QRNHOST_CUTILS_PROPERTIES_H

#include <stdint.h>
#include <sys/cdefs.h>

__BEGIN_DECLS

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/* Copies the value of key into value (at most PROPERTY_VALUE_MAX bytes with
 * the terminator) and returns its length. An unset or empty property yields
 * default_value (or "" when that is null). */
int property_get(const char* key, char* value, const char* default_value);

/* "1", "y", "yes", "on", "true" give 1; "0", "n", "no", "off", "false" give
 * 0; anything else (unset included) gives default_value. */
int8_t property_get_bool(const char* key, int8_t default_value);

/* The value parsed with strtoimax in base 0; an unset property, a value with
 * no leading number, an overflow or a value outside the type's range gives
 * default_value. */
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);

/* Sets key to value. Returns 0, or -1 for a null key or value or a value of
 * PROPERTY_VALUE_MAX bytes or more (the device refuses those too). */
int property_set(const char* key, const char* value);

/* Calls fn for every property, in key order. */
int property_list(void (*fn)(const char* key, const char* value, void* cookie), void* cookie);

__END_DECLS

#endif
