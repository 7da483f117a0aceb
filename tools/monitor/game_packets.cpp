#include "monitor/game_packets.h"

#include "dm/monitor.h"
#include "net/packet.h"

namespace dm_tools {

namespace {

void readText(net::Packet& packet, GamePacketReceiver& receiver) {
    int32_t channel = 0;
    const char* text = "";
    packet >> channel >> text;
    if (packet.hasError()) {
        receiver.malformed("text");
        return;
    }
    std::string rest = text;
    while (!rest.empty() && rest.back() == '\n') {
        rest.pop_back();
    }
    size_t start = 0;
    for (;;) {
        const size_t end = rest.find('\n', start);
        receiver.textLine(channel, rest.substr(start, end - start));
        if (end == std::string::npos) {
            return;
        }
        start = end + 1;
    }
}

void readInPlace(net::Packet& packet, GamePacketReceiver& receiver) {
    int32_t group = 0;
    const char* name = "";
    const char* text = "";
    packet >> group >> name >> text;
    if (packet.hasError()) {
        receiver.malformed("in-place");
        return;
    }
    receiver.inPlace(group, name, text);
}

void readProfile(net::Packet& packet, GamePacketReceiver& receiver) {
    d::Profile::ProfileSnapshot snapshot;
    packet >> snapshot;
    if (packet.hasError()) {
        receiver.malformed("profile");
        return;
    }
    receiver.profile(snapshot);
}

}  // namespace

void readGamePacket(net::Packet& packet, GamePacketReceiver& receiver) {
    switch (packet.getID()) {
        case dm::monitor_packet::kText:
            readText(packet, receiver);
            break;
        case dm::monitor_packet::kInPlace:
            readInPlace(packet, receiver);
            break;
        case dm::monitor_packet::kProfile:
            readProfile(packet, receiver);
            break;
        default:
            receiver.unknown(packet.getID(), packet.getSize());
            break;
    }
}

}  // namespace dm_tools
