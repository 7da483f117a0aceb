// A peer that dies mid-frame: connects to 127.0.0.1:<port>, sends one whole frame (id 7, one
// uint32 42) and the first half of a second one, prints "sent", then waits to be killed.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "../net_test_util.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    int fd = nettest::rawConnect(static_cast<uint32_t>(std::atoi(argv[1])));
    if (fd < 0) {
        return 1;
    }
    nettest::Bytes whole;
    nettest::appendLE32(whole, 42);
    nettest::Bytes stream = nettest::makeFrame(7, whole);
    nettest::Bytes second = nettest::makeFrame(8, nettest::Bytes(100, 0xEE));
    stream.insert(stream.end(), second.begin(), second.begin() + 50);
    if (!nettest::rawSendAll(fd, stream)) {
        return 1;
    }
    std::printf("sent\n");
    std::fflush(stdout);
    poll(nullptr, 0, 30000);  // bounded, in case nobody kills us
    return 0;
}
