// Servers whose descriptor table is full: a listener, the debug-monitor link and a pipe manager
// in a second process (net_descriptor_starved_server). Connections they cannot take must be
// closed rather than left waiting, the server must not spin on them, and it must take new
// connections again once descriptors are free.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "net_test_util.h"

namespace {

constexpr int kStarvedClients = 3;
// Accept calls the server may make while starved: one per turned-away client, one more to find
// the backlog empty, and a few after each back-off. A server that spins makes thousands.
constexpr unsigned long kMaxAcceptCalls = 20 + 4 * kStarvedClients;

// The number after `key` in the server's output, or -1.
long long valueAfter(const std::string& output, const std::string& key) {
    size_t at = output.find(key + " ");
    return at == std::string::npos ? -1 : std::atoll(output.c_str() + at + key.size() + 1);
}

struct StarvedServerCase {
    const char* mode;
    int greetingId;
};

class DescriptorStarvation : public ::testing::TestWithParam<StarvedServerCase> {};

TEST_P(DescriptorStarvation, TurnsClientsAwayWithoutSpinningAndRecovers) {
    dmtest::ChildProcess server("net_descriptor_starved_server", {GetParam().mode}, true);
    ASSERT_TRUE(server.waitForOutput("full")) << server.output();
    const long long port = valueAfter(server.output(), "port");
    ASSERT_GT(port, 0) << server.output();

    for (int client = 0; client < kStarvedClients; ++client) {
        int fd = nettest::rawConnect(static_cast<uint32_t>(port));  // the backlog takes it
        ASSERT_GE(fd, 0);
        // Closed by the server: it reads end-of-file (or a reset) within the bound.
        char byte = 0;
        EXPECT_TRUE(nettest::waitReadable(fd, 10000) && recv(fd, &byte, 1, 0) <= 0)
            << "client " << client << " left waiting";
        close(fd);
    }
    ASSERT_TRUE(server.writeInput("report\n"));
    ASSERT_TRUE(server.waitForOutput("accepts")) << server.output();
    const long long acceptCalls = valueAfter(server.output(), "accepts");
    EXPECT_GE(acceptCalls, kStarvedClients);
    EXPECT_LE(acceptCalls, static_cast<long long>(kMaxAcceptCalls)) << server.output();

    ASSERT_TRUE(server.writeInput("free\n"));
    ASSERT_TRUE(server.waitForOutput("freed")) << server.output();
    net::Socket served(nettest::rawConnect(static_cast<uint32_t>(port)));
    net::Packet* greeting = dmtest::nextPacket(served);
    EXPECT_EQ(greeting ? greeting->getID() : -1, GetParam().greetingId) << "not served again";

    ASSERT_TRUE(server.writeInput("quit\n"));
    EXPECT_EQ(server.wait(), 0) << server.output();
}

INSTANTIATE_TEST_SUITE_P(Servers, DescriptorStarvation,
                         ::testing::Values(StarvedServerCase{"listener", 7},
                                           StarvedServerCase{"monitor", 1},
                                           StarvedServerCase{"pipes", 205}),
                         [](const auto& testCase) { return std::string(testCase.param.mode); });

}  // namespace
