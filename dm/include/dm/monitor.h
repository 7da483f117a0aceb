// dm monitor interface.
#pragma once

#include "dm/export.h"

namespace dm {}  // namespace dm
