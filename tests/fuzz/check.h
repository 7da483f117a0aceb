// The harnesses' assertion: a property that does not hold ends the run as a crash, which
// libFuzzer reports with the input that caused it.
#pragma once

#include <cstdlib>

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}
