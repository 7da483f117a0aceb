// Reads the packets a game sends on its monitor link (docs/monitor-protocol.md) and hands their
// contents to a receiver. Shared by the terminal and the web monitor.
#pragma once

#include <cstdint>
#include <string>

#include "d/profile.h"

namespace net {
class Packet;
}

namespace dm_tools {

class GamePacketReceiver {
public:
    virtual ~GamePacketReceiver() = default;
    // One line of a text packet (a text holding line feeds gives several; trailing ones are
    // dropped).
    virtual void textLine(int channel, const std::string& line) = 0;
    virtual void inPlace(int group, const std::string& name, const std::string& text) = 0;
    virtual void profile(const d::Profile::ProfileSnapshot& snapshot) = 0;
    // A packet whose fields could not be read; `kind` is "text", "in-place" or "profile".
    virtual void malformed(const char* kind) = 0;
    virtual void unknown(int id, uint32_t size) = 0;
};

void readGamePacket(net::Packet& packet, GamePacketReceiver& receiver);

}  // namespace dm_tools
