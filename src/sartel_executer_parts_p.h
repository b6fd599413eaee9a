#pragma once

// Shared by the source files of VXSartelExecuter only.

#include "text_p.h"

namespace RK {

inline constexpr const char *a_keyRemovedName = "VXMemory/KeyRemoved";

} // namespace RK
