// Monotonic time in seconds.
#pragma once

#include <cstdint>

#include "zu/export.h"

namespace zu {

class ZUL_API Timer {
public:
    Timer();  // starts at construction

    void restart();
    // Seconds since construction or the last restart.
    double getElapsedSeconds() const;

    // Seconds since the runtime was loaded.
    static double getAppAge();

private:
    int64_t m_startNanoseconds;
};

}  // namespace zu
