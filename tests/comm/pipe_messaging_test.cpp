// Requests, responses and notifications between two pipes over a loopback connection, each end
// pumped by its own thread as a manager would.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/pipe_link.h"
#include "support/pipe_responders.h"

namespace {

using dmtest::PipeLink;
using dmtest::waitUntil;
using Bytes = std::vector<uint8_t>;

using Responder = dmtest::EchoResponder;

void echoReversed(const std::string& text, uint32_t value, const Bytes& data, std::string& outText,
                  Bytes& outData) {
    outText = "re:" + text + ":" + std::to_string(value);
    outData.assign(data.rbegin(), data.rend());
}

TEST(PipeMessaging, RequestAndResponseCarryTextValueAndBinaryDataBothWays) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.start();
    Responder responder(&link.right.pipe(), &echoReversed);

    const Bytes request = dmtest::patternBytes(1000, 1);
    Bytes response(1000);
    uint32_t responseSize = 0;
    zu::InplaceString<128> text = link.left.pipe().sendRequest("hello", 42, response.data(), 1000,
                                                               &responseSize, request.data(), 1000);
    EXPECT_STREQ("re:hello:42", text.c_str());
    EXPECT_EQ(1000u, responseSize);
    EXPECT_EQ(Bytes(request.rbegin(), request.rend()), response);

    // And the other way, without any data: the response size is 0 and the buffer untouched.
    Responder back(&link.left.pipe(), &echoReversed);
    Bytes untouched(16, 0xAB);
    responseSize = 99;
    text =
        link.right.pipe().sendRequest("plain", 7, untouched.data(), 16, &responseSize, nullptr, 0);
    EXPECT_STREQ("re:plain:7", text.c_str());
    EXPECT_EQ(0u, responseSize);
    EXPECT_EQ(Bytes(16, 0xAB), untouched);
}

TEST(PipeMessaging, NotificationLongerThanOnePacketIsDeliveredOnceWhole) {
    std::string longText(2 * net::Packet::kMaxPayload + 1234, ' ');
    for (size_t i = 0; i < longText.size(); ++i) {
        longText[i] = static_cast<char>('a' + i % 26);
    }
    std::atomic<int> completed{0};
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.right.pipe().setNotifyCallback({&completed, [](void* counter, dm::CommunicationPipe*) {
                                             ++*static_cast<std::atomic<int>*>(counter);
                                         }});
    link.start();

    ASSERT_TRUE(link.left.pipe().sendNotify(longText.c_str(), 5));
    ASSERT_TRUE(link.left.pipe().sendNotify("after", 6));
    uint32_t value = 0;
    zu::InplaceString<128> text;
    ASSERT_TRUE(waitUntil([&] {
        text = link.right.pipe().receiveNotify(&value);
        return !text.empty();
    }));
    EXPECT_EQ(longText.size(), text.length());
    EXPECT_TRUE(longText == text.c_str());
    EXPECT_EQ(5u, value);
    ASSERT_TRUE(waitUntil([&] { return completed.load() == 2; }));
    // Only the short one is left: the long one came once.
    EXPECT_STREQ("after", link.right.pipe().receiveNotify(&value).c_str());
    EXPECT_EQ(6u, value);
    EXPECT_STREQ("", link.right.pipe().receiveNotify(&value).c_str());
}

TEST(PipeMessaging, SendRequestBlocksUntilTheResponseArrives) {
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.start();
    std::atomic<bool> returned{false};
    zu::InplaceString<128> result;
    std::thread sender([&] {
        result = link.left.pipe().sendRequest("wait for me", 0, nullptr, 0, nullptr, nullptr, 0);
        returned = true;
    });

    dm::NetCommunicationPipe& right = link.right.pipe();
    EXPECT_TRUE(waitUntil([&] { return !right.receiveRequest(nullptr).empty(); }));
    // The request has been delivered, but nobody has answered it yet.
    EXPECT_FALSE(returned.load());
    right.respond("answered", nullptr, 0);
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }));
    sender.join();
    EXPECT_STREQ("answered", result.c_str());
}

TEST(PipeMessaging, ConcurrentSendersEachGetTheirOwnResponse) {
    constexpr int kThreads = 8;
    constexpr int kRequestsEach = 40;
    PipeLink link;
    ASSERT_TRUE(link.connected);
    link.start();
    Responder responder(&link.right.pipe(), &echoReversed);

    std::atomic<int> mismatches{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kRequestsEach; ++i) {
                const std::string text = "t" + std::to_string(t) + "-" + std::to_string(i);
                const uint32_t value = static_cast<uint32_t>(t * 1000 + i);
                const Bytes data = dmtest::patternBytes(1 + (t * 31 + i) % 300, value);
                Bytes response(data.size());
                uint32_t size = 0;
                zu::InplaceString<128> answer = link.left.pipe().sendRequest(
                    text.c_str(), value, response.data(), static_cast<uint32_t>(response.size()),
                    &size, data.data(), static_cast<uint32_t>(data.size()));
                const bool match = answer == ("re:" + text + ":" + std::to_string(value)).c_str() &&
                                   size == data.size() &&
                                   response == Bytes(data.rbegin(), data.rend());
                if (!match) {
                    ++mismatches;
                }
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(0, mismatches.load());
    EXPECT_EQ(0u, link.left.pipe().getStatistics().outgoingRequests);
}

}  // namespace
