// Status codes shared by every entry of the library (see include/varnix.h).
#pragma once

#include "varnix.h"

namespace varnix {

inline constexpr int kOk = 0;
inline constexpr int kInitMarkReady = 1111;
inline constexpr int kInitMarkFailed = 2222;

}  // namespace varnix
