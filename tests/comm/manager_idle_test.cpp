// Managers that have gone idle (passes with nothing queued skip pumping the pipes) still send
// whatever is queued afterwards, from any thread: requests small and large, notifications,
// and pipes made later.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/manager_support.h"
#include "support/manager_link.h"

namespace dmtest {
namespace {

constexpr size_t kLarge = 700 * 1024;  // more than one pump sends at once

std::string roundTrip(dm::CommunicationPipe* pipe, const std::vector<uint8_t>& data,
                      std::vector<uint8_t>& answer) {
    uint32_t got = 0;
    const zu::InplaceString<128> text =
        pipe->sendRequest("idle", 3, answer.data(), static_cast<uint32_t>(answer.size()), &got,
                          data.data(), static_cast<uint32_t>(data.size()));
    answer.resize(got);
    return text.c_str();
}

TEST(ManagerIdle, WorkQueuedAfterIdlePassesGoesOut) {
    ManagerLink link;
    const std::string client = link.addClient();
    const ManagerLink::PipeEnds first = link.connectPipe(client, "idle-first");
    ASSERT_NE(first.client, nullptr);
    EchoResponder responder(first.server);

    // Each request starts after the last answer was taken: the managers had passes with
    // nothing to send in between.
    for (uint32_t i = 0; i < 50; ++i) {
        const std::vector<uint8_t> data = patternBytes(16, i);
        std::vector<uint8_t> answer(16);
        roundTrip(first.client, data, answer);
        ASSERT_EQ(answer, data) << "round trip " << i;
    }
    const std::vector<uint8_t> large = patternBytes(kLarge, 9);
    std::vector<uint8_t> answer(kLarge);
    roundTrip(first.client, large, answer);
    EXPECT_EQ(answer, large);

    // A notification from the other side, queued while both are idle.
    ASSERT_TRUE(first.server->sendNotify("from the server", 42));
    uint32_t value = 0;
    std::string text;
    ASSERT_TRUE(waitUntil([&] {
        text = first.client->receiveNotify(&value).c_str();
        return !text.empty();
    }));
    EXPECT_EQ(text, "from the server");
    EXPECT_EQ(value, 42u);

    // A pipe made later is still asked for and attached, and carries requests.
    const ManagerLink::PipeEnds second = link.connectPipe(client, "idle-second");
    ASSERT_NE(second.client, nullptr);
    responder.add(second.server);
    const std::vector<uint8_t> data = patternBytes(16, 77);
    std::vector<uint8_t> reply(16);
    roundTrip(second.client, data, reply);
    EXPECT_EQ(reply, data);
}

}  // namespace
}  // namespace dmtest
