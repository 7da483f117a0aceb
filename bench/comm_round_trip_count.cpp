// A fixed number of 16-byte request/response round trips over one rig, for counting what a
// round trip costs the kernel. Run it twice under perf stat, with the count and with 0, and
// divide the difference by the count, so that setting up and tearing down drop out:
//
//   perf stat -e context-switches,raw_syscalls:sys_enter comm_round_trip_count pipe 20000
//   perf stat -e context-switches,raw_syscalls:sys_enter comm_round_trip_count pipe 0
//
// Kinds: pipe, zmq (when built with ZeroMQ), raw. Prefix with `taskset -c 0` to pin. A third
// argument "big" fetches the 64 MiB response that many times instead.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench_comm_rigs.h"

namespace {

template <typename Rig>
int fetchBig(Rig& rig, long count) {
    struct alignas(64) Line {
        uint8_t bytes[64];
    };
    const std::unique_ptr<Line[]> answer(new Line[bench::kBigSize / sizeof(Line)]);
    for (long i = 0; i < count; ++i) {
        if (rig.fetchBig(answer[0].bytes) != bench::kBigSize) {
            std::fprintf(stderr, "fetch %ld came back short\n", i);
            return 1;
        }
    }
    return 0;
}

template <typename Rig>
int run(long count, bool big) {
    Rig rig(1);
    if (!rig.ready()) {
        std::fprintf(stderr, "the rig did not come up\n");
        return 1;
    }
    if (big) {
        return fetchBig(rig, count);
    }
    uint8_t request[16] = {};
    uint8_t answer[16] = {};
    for (long i = 0; i < count; ++i) {
        request[0] = static_cast<uint8_t>(i);
        if (rig.echo(0, request, sizeof(request), answer) != sizeof(request) ||
            answer[0] != request[0]) {
            std::fprintf(stderr, "round trip %ld came back wrong\n", i);
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool big = argc == 4 && std::strcmp(argv[3], "big") == 0;
    if (argc != 3 && !big) {
        std::fprintf(stderr, "usage: %s pipe|zmq|raw <round trips> [big]\n", argv[0]);
        return 2;
    }
    const long count = std::strtol(argv[2], nullptr, 10);
    if (std::strcmp(argv[1], "pipe") == 0) {
        return run<bench::PipeRig>(count, big);
    }
#if defined(DM_HAVE_ZMQ)
    if (std::strcmp(argv[1], "zmq") == 0) {
        return run<bench::ZmqRig>(count, big);
    }
#endif
    if (std::strcmp(argv[1], "raw") == 0) {
        return run<bench::RawTcpRig>(count, big);
    }
    std::fprintf(stderr, "unknown kind %s\n", argv[1]);
    return 2;
}
