// Monitor dispatch: the input is what one monitor tool sends to the game, fed through a real
// loopback connection to the debug-monitor link. The game's frames go on whatever arrives, the
// data callback only ever sees whole texts, and the connection ends once the tool has gone.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dm/monitor.h"
#include "fuzz/check.h"
#include "net/net_test_util.h"

namespace {

class EchoingParser : public dm::DataParserCallback {
public:
    void parseData(const char* data) override {
        check(data != nullptr);
        const size_t length = std::strlen(data);
        if (length % 2 == 1) {
            dm::print("data: %s", data);  // answering from inside update, as games do
        }
    }
};

int listeningPort() {
    static const int port = [] {
        static EchoingParser parser;
        dm::init(0);
        dm::setDataParserCallback(&parser);
        return dm::getMonitorPort();
    }();
    check(port > 0);
    return port;
}

// Tens of thousands of connections a minute can find loopback's ports briefly taken, and
// libFuzzer's timer can cut a connect short: a failed attempt is made again, a bounded number of
// times.
int connectMonitor(int port) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int fd = nettest::rawConnect(static_cast<uint32_t>(port));
        if (fd >= 0) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            return fd;
        }
        std::fprintf(stderr, "monitor fuzz: connect failed (errno %d), trying again\n", errno);
        poll(nullptr, 0, 10);
    }
    check(false);
    return -1;
}

// Runs one game frame and reads what the game sent; true once the game closed the connection.
bool frameEndedConnection(int fd) {
    dm::update();
    char buffer[4096];
    const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = connectMonitor(listeningPort());
    size_t written = 0;
    bool ended = false;
    for (int frame = 0; written < size && !ended && frame < 100000; ++frame) {
        const ssize_t sent = send(fd, data + written, size - written, MSG_NOSIGNAL);
        written += sent > 0 ? static_cast<size_t>(sent) : 0;
        ended = frameEndedConnection(fd);
    }
    shutdown(fd, SHUT_WR);  // the tool has said all it will
    for (int frame = 0; !ended && frame < 100000; ++frame) {
        ended = frameEndedConnection(fd);
    }
    check(ended);
    close(fd);
    for (int request = -1; request <= 3; ++request) {
        dm::checkAndClearRequest(request);
    }
    dm::update();
    check(dm::getMonitorConnectionCount() == 0);
    return 0;
}
