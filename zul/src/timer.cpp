#include "zu/timer.h"

#include <chrono>

namespace zu {

namespace {

int64_t nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Set when the library is loaded, so getAppAge counts from then.
const int64_t g_loadTime = nowNanoseconds();

}  // namespace

Timer::Timer() : m_startNanoseconds(nowNanoseconds()) {}

void Timer::restart() {
    m_startNanoseconds = nowNanoseconds();
}

double Timer::getElapsedSeconds() const {
    return static_cast<double>(nowNanoseconds() - m_startNanoseconds) * 1e-9;
}

double Timer::getAppAge() {
    return static_cast<double>(nowNanoseconds() - g_loadTime) * 1e-9;
}

}  // namespace zu
