// Measuring an attack: wall and CPU time, resident memory, medians, and the table row each
// attack prints (see hostile_peers.cpp).
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "bench_comm_rigs.h"

namespace hostile {

using Clock = std::chrono::steady_clock;

inline double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    if (values.empty()) {
        return -1.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline double percentile99(std::vector<double> values) {
    if (values.empty()) {
        return -1.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() * 99 / 100];
}

inline std::string fixed(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

inline double residentMiB() {
    long size = 0;
    long pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &size, &pages) != 2) {
            pages = 0;
        }
        std::fclose(statm);
    }
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

inline double peakResidentMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

inline double cpuMs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto ms = [](const timeval& time) { return time.tv_sec * 1000.0 + time.tv_usec / 1000.0; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

// Set by --row: print one machine-readable line instead of a table row.
inline bool g_rowOnly = false;

inline void printRow(const char* attack, double startMiB, double legitimateMs, const char* what,
                     const std::string& note) {
    if (g_rowOnly) {
        std::printf("ROW\t%s\t%.1f\t%.3f\t%s\n", attack, peakResidentMiB(), legitimateMs,
                    note.c_str());
    } else {
        std::printf("| %-11s | %8.1f | %8.1f | %10.3f | %-24s | %s\n", attack, startMiB,
                    peakResidentMiB(), legitimateMs, what, note.c_str());
    }
    std::fflush(stdout);
}

inline double roundTripMs(bench::PipeRig& rig) {
    uint8_t data[bench::kSmallSize] = {1, 2, 3};
    uint8_t answer[bench::kSmallSize];
    const auto start = Clock::now();
    rig.echo(0, data, sizeof(data), answer);
    return msSince(start);
}

}  // namespace hostile
