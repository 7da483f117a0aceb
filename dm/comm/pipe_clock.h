// PipeClock: the pipe manager's sense of time, in seconds, for its intervals (reconnecting,
// asking again for pipes). Unit tests step a clock of their own instead of waiting.
#pragma once

namespace dm {

class PipeClock {
public:
    virtual double now() const = 0;

protected:
    ~PipeClock() = default;
};

// The application's age from the runtime's timer; lives for the whole run.
const PipeClock& appAgeClock();

}  // namespace dm
