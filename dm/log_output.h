// Writing a diagnostic line to the sink installed with dm::setLogSink.
#pragma once

#include "dm/export.h"

namespace dm {

// Formats with printf rules (a line longer than 1023 characters is cut) and hands the line to
// the current sink.
void logLine(const char* format, ...) DM_PRINTF(1, 2);

}  // namespace dm
