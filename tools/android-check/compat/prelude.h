// Included first in every check compile. Debian's Android 10 libbinder headers use
// std::unique_ptr and std::numeric_limits without including their headers; the platform's
// own libc++ build pulls them in through other headers.
#pragma once

#include <limits>
#include <memory>
