// Stands in for bionic's <sys/system_properties.h>, which Debian does not ship: libcutils'
// <cutils/properties.h> takes its two size limits from it. Values as in bionic.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
