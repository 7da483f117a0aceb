// dm-pipe-echo run as a separate process: against a client that writes its packets by hand,
// and against itself.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "net/socket.h"
#include "support/pipe_wire.h"
#include "support/test_support.h"

namespace {

using dmtest::ChildProcess;
namespace pipewire = dmtest::pipewire;

const std::string kTool = DM_PIPE_ECHO_TOOL;

// Starts `dm-pipe-echo server 0` and reads the port it prints.
std::string startServer(ChildProcess& server) {
    if (!server.started() || !server.waitForOutput(" on port ")) {
        return "";
    }
    const std::string& output = server.output();
    const size_t start = output.find(" on port ") + 9;
    return output.substr(start, output.find('\n', start) - start);
}

// A pipe client made of hand-written packets, for what the library itself never sends.
class RawPipeClient {
public:
    bool open(const std::string& port) {
        if (!m_socket.connect("127.0.0.1", static_cast<uint32_t>(std::stoul(port)))) {
            return false;
        }
        net::Packet openPipe(pipewire::kPacketId);
        openPipe << pipewire::kOpenPipe << "echo"
                 << "raw client";
        send(openPipe);
        return next(1) != nullptr;  // PipeOpened
    }
    void send(const net::Packet& packet) {
        m_socket.sendPacket(packet);
        m_socket.update();
    }
    // The next pipe message of `kind` (others are skipped), positioned behind the kind; null
    // when none comes within the bound.
    net::Packet* next(int32_t kind) {
        net::Packet* found = nullptr;
        dmtest::waitUntil([&] {
            m_socket.update();
            while (net::Packet* packet = m_socket.pollPacket(nullptr)) {
                int32_t packetKind = -1;
                *packet >> packetKind;
                if (packet->getID() == pipewire::kPacketId && packetKind == kind) {
                    found = packet;
                    return true;
                }
            }
            return !m_socket.isConnected();
        });
        return found;
    }

private:
    net::Socket m_socket;
};

TEST(PipeEchoTool, ServerReportsEmptyTextsAndGoesOnAnswering) {
    ChildProcess server(kTool, {"server", "0"});
    const std::string port = startServer(server);
    ASSERT_FALSE(port.empty()) << server.output();
    RawPipeClient client;
    ASSERT_TRUE(client.open(port)) << server.output();

    const uint8_t data[16] = {1, 2, 3, 4};
    client.send(pipewire::request("echo", 0, 0, "", 16, 0, 16, data));
    client.send(pipewire::notify("echo", 0, 0, 0, 0, 0, nullptr));
    client.send(pipewire::request("echo", 1, 0, "after", 16, 0, 16, data));
    net::Packet* response = client.next(pipewire::kResponse);
    ASSERT_NE(response, nullptr) << server.output();
    const char* pipe = nullptr;
    uint32_t id = 99;
    const char* text = nullptr;
    *response >> pipe >> id >> text;
    EXPECT_EQ(1u, id);
    EXPECT_STREQ("after", text);
    EXPECT_TRUE(server.waitForOutput("with an empty text; they get no answer")) << server.output();
}

}  // namespace
