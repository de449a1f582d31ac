// The two limits of bionic's <sys/system_properties.h> that <cutils/properties.h> needs. Debian
// ships the cutils header without the bionic one; on a device the real header is used.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
