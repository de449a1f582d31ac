// What stall_ward uses of bionic's <sys/system_properties.h>: the two limits <cutils/properties.h>
// needs, and the enumeration of every property. Debian ships the cutils header without the bionic
// one; on a device the real header is used.
#pragma once

#include <stdint.h>

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

typedef struct prop_info prop_info;
int __system_property_foreach(void (*propfn)(const prop_info* pi, void* cookie), void* cookie);
void __system_property_read_callback(const prop_info* pi,
                                     void (*callback)(void* cookie, const char* name,
                                                      const char* value, uint32_t serial),
                                     void* cookie);
