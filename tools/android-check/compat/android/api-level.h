// Stands in for bionic's <android/api-level.h>, which Debian does not ship: googletest's
// port header includes it when __ANDROID__ is set. A platform build targets the current API.
#pragma once

#define __ANDROID_API_FUTURE__ 10000
#ifndef __ANDROID_API__
#define __ANDROID_API__ __ANDROID_API_FUTURE__
#endif
