#include "net/packet.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "net_test_util.h"

namespace {

using net::Packet;
using nettest::appendLE32;
using nettest::Bytes;

Bytes payloadOf(const Packet& packet) {
    return Bytes(packet.getData(), packet.getData() + packet.getSize());
}

// A received packet holding exactly `payload`.
Packet packetWith(const Bytes& payload) {
    Packet packet(1);
    EXPECT_TRUE(packet.assign(1, payload.data(), static_cast<uint32_t>(payload.size())));
    return packet;
}

TEST(Packet, EveryFieldTypeRoundTripsInTheDocumentedEncoding) {
    Packet packet(205);
    const uint8_t raw[3] = {0xAA, 0x00, 0xBB};
    packet << int32_t{-2} << uint32_t{0x01020304u} << "ab"
           << "" << int32_t{INT32_MIN};
    EXPECT_EQ(packet.write(raw, sizeof(raw)), 3u);
    packet << uint32_t{UINT32_MAX};

    Bytes expected;
    appendLE32(expected, 0xFFFFFFFEu);
    appendLE32(expected, 0x01020304u);
    appendLE32(expected, 2);
    expected.insert(expected.end(), {'a', 'b', 0});
    appendLE32(expected, 0);
    expected.push_back(0);
    appendLE32(expected, 0x80000000u);
    expected.insert(expected.end(), raw, raw + 3);
    appendLE32(expected, 0xFFFFFFFFu);
    EXPECT_EQ(payloadOf(packet), expected);
    EXPECT_EQ(packet.getPos(), packet.getSize());
    EXPECT_EQ(reinterpret_cast<uintptr_t>(packet.getData()) % 64, 0u);

    packet.setPos(0);
    int32_t negative = 0, minimum = 0;
    uint32_t unsignedValue = 0, maximum = 0;
    const char* text = nullptr;
    const char* empty = nullptr;
    uint8_t rawBack[3] = {};
    packet >> negative >> unsignedValue >> text >> empty >> minimum;
    EXPECT_EQ(packet.read(rawBack, sizeof(rawBack)), 3u);
    packet >> maximum;
    EXPECT_EQ(negative, -2);
    EXPECT_EQ(unsignedValue, 0x01020304u);
    EXPECT_STREQ(text, "ab");
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(minimum, INT32_MIN);
    EXPECT_EQ(std::memcmp(rawBack, raw, 3), 0);
    EXPECT_EQ(maximum, UINT32_MAX);
    EXPECT_EQ(packet.getRemaining(), 0u);
    EXPECT_FALSE(packet.hasError());
    // Strings point into the packet: no copy is made.
    EXPECT_GE(text, reinterpret_cast<const char*>(packet.getData()));
    EXPECT_LT(text, reinterpret_cast<const char*>(packet.getData() + packet.getSize()));
}

TEST(Packet, ReadsPastTheEndFlagAnErrorAndLeaveTheCursor) {
    Packet packet = packetWith({1, 2});
    int32_t value = 99;
    uint32_t unsignedValue = 99;
    const char* text = nullptr;
    packet >> value >> unsignedValue >> text;
    EXPECT_EQ(value, 0);
    EXPECT_EQ(unsignedValue, 0u);
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(packet.hasError());
    EXPECT_EQ(packet.getPos(), 0u);
    Packet threeBytes = packetWith({1, 2, 3});  // one short of a number
    threeBytes >> unsignedValue;
    EXPECT_TRUE(threeBytes.hasError());

    packet.clearError();
    uint8_t buffer[8] = {};
    EXPECT_EQ(packet.read(buffer, sizeof(buffer)), 2u);  // what was there, and an error
    EXPECT_EQ(buffer[1], 2);
    EXPECT_TRUE(packet.hasError());
    EXPECT_EQ(packet.read(buffer, 1), 0u);
}

TEST(Packet, WritesBeyondTheMaximumAreRefusedOrCut) {
    std::vector<uint8_t> big(Packet::kMaxPayload + 100, 0x5A);
    Packet packet(3);
    packet << uint32_t{7};
    // Raw bytes are cut to what fits; that is how bulk data is split, so no error.
    EXPECT_EQ(packet.write(big.data(), static_cast<uint32_t>(big.size())), Packet::kMaxPayload - 4);
    EXPECT_EQ(packet.getSize(), Packet::kMaxPayload);
    EXPECT_FALSE(packet.hasError());
    EXPECT_EQ(packet.write(big.data(), 1), 0u);

    // Fixed fields go in whole or not at all.
    packet << uint32_t{1} << int32_t{2} << "text";
    EXPECT_TRUE(packet.hasError());
    EXPECT_EQ(packet.getSize(), Packet::kMaxPayload);

    // A string that would not fit leaves nothing behind, not even its length.
    Packet nearlyFull;
    nearlyFull.write(big.data(), Packet::kMaxPayload - 6);
    nearlyFull << "ab";  // needs 7 bytes, 6 left
    EXPECT_TRUE(nearlyFull.hasError());
    EXPECT_EQ(nearlyFull.getSize(), Packet::kMaxPayload - 6);
    nearlyFull.clearError();
    nearlyFull << "a";  // exactly 6
    EXPECT_FALSE(nearlyFull.hasError());
    EXPECT_EQ(nearlyFull.getSize(), Packet::kMaxPayload);

    // Received payloads obey the same limit.
    EXPECT_FALSE(packet.assign(4, big.data(), Packet::kMaxPayload + 1));
    EXPECT_EQ(packet.getSize(), 0u);
    EXPECT_TRUE(packet.assign(4, big.data(), Packet::kMaxPayload));
    EXPECT_EQ(packet.getPos(), 0u);
}

TEST(Packet, OverwritingAPlaceholderKeepsTheRestOfAFullPacket) {
    // The chunked-send pattern: placeholder, bulk bytes up to the limit, then the real count.
    std::vector<uint8_t> data(Packet::kMaxPayload, 0x11);
    Packet packet(205);
    packet << int32_t{3};
    uint32_t placeholder = packet.getPos();
    packet << uint32_t{0};
    uint32_t taken = packet.write(data.data(), static_cast<uint32_t>(data.size()));
    uint32_t end = packet.getPos();
    packet.setPos(placeholder);
    packet << taken;
    packet.setPos(end);
    EXPECT_FALSE(packet.hasError());
    EXPECT_EQ(packet.getSize(), Packet::kMaxPayload);

    packet.setPos(Packet::kMaxPayload + 10);  // clamped
    EXPECT_EQ(packet.getPos(), Packet::kMaxPayload);
    packet.setPos(0);
    int32_t kind = 0;
    uint32_t count = 0;
    packet >> kind >> count;
    EXPECT_EQ(kind, 3);
    EXPECT_EQ(count, taken);
    EXPECT_EQ(packet.getRemaining(), taken);
}

TEST(Packet, MalformedStringsAreRefused) {
    struct Case {
        const char* name;
        Bytes payload;
    };
    const auto field = [](uint32_t length, std::initializer_list<uint8_t> rest) {
        Bytes bytes;
        appendLE32(bytes, length);
        bytes.insert(bytes.end(), rest);
        return bytes;
    };
    for (const Case& testCase :
         {Case{"length past end", field(10, {'a', 'b', 0})},
          Case{"no terminator", field(2, {'a', 'b', 'c'})},
          Case{"huge length", field(0xFFFFFFFFu, {'a', 0})}, Case{"length only", field(0, {})}}) {
        SCOPED_TRACE(testCase.name);
        Packet packet = packetWith(testCase.payload);
        const char* text = nullptr;
        packet >> text;
        EXPECT_STREQ(text, "");
        EXPECT_TRUE(packet.hasError());
        EXPECT_EQ(packet.getPos(), 0u);
    }
}

TEST(Packet, CopiesAreIndependentAndResetStartsOver) {
    Packet original(5);
    original << "first";
    Packet copy(original);
    copy.setPos(copy.getSize());
    copy << uint32_t{2};
    original.reset(6);
    EXPECT_EQ(original.getID(), 6);
    EXPECT_EQ(original.getSize(), 0u);

    copy.setPos(0);
    const char* text = nullptr;
    uint32_t two = 0;
    copy >> text >> two;
    EXPECT_EQ(copy.getID(), 5);
    EXPECT_STREQ(text, "first");
    EXPECT_EQ(two, 2u);
    Packet assigned;
    assigned = copy;
    assigned = assigned;
    EXPECT_EQ(payloadOf(assigned), payloadOf(copy));
}

}  // namespace
