#include "log_output.h"

#include <cstdarg>
#include <cstdio>

#include "dm/log.h"
#include "zu/mutex.h"

namespace dm {
namespace {

void writeToStandardOutput(void*, const char* line) {
    std::fputs(line, stdout);
    // Diagnostic lines are rare; flushing keeps them in order with a host's own output when
    // standard output is a pipe.
    std::fflush(stdout);
}

struct LogTarget {
    zu::Mutex lock;  // held while a line is delivered, so setLogSink can wait for it
    LogSink sink ZU_GUARDED_BY(lock) = writeToStandardOutput;
    void* context ZU_GUARDED_BY(lock) = nullptr;
};

LogTarget& logTarget() {
    static LogTarget target;
    return target;
}

}  // namespace

void setLogSink(LogSink sink, void* context) {
    LogTarget& target = logTarget();
    zu::ScopedLock guard(target.lock);
    target.sink = sink ? sink : writeToStandardOutput;
    target.context = sink ? context : nullptr;
}

void logLine(const char* format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (written < 0) {
        return;
    }
    LogTarget& target = logTarget();
    zu::ScopedLock guard(target.lock);
    target.sink(target.context, line);
}

}  // namespace dm
