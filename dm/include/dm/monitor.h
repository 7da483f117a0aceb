// The debug-monitor link: monitor tools connect to the game over TCP and receive its printed
// text, its in-place statistics and thread-profile snapshots; they send back data and requests.
//
// Everything here is guarded by one recursive lock, so any function may be called from any
// thread, and a DataParserCallback may itself print or broadcast. The game calls update() once
// per frame; that is where monitors are accepted, dropped, and heard from.
//
// Packets sent to every monitor (fields in order):
//   1  int channel, string text          (print)
//   2  int group, string name, string text (printInPlace)
//   3  the thread profiler's snapshot    (createProfilePacket; see docs/profile-packet.md)
// Packets taken from monitors:
//   101 string data  -> DataParserCallback::parseData(data)
//   4   int request  -> flag for checkAndClearRequest (0, 1 or 2; other values are ignored)
//   100 and any other id are ignored, as are packets whose fields cannot be read.
#pragma once

#include "dm/export.h"

namespace net {
class Packet;
}

namespace dm {

// Packet ids of the monitor protocol (docs/monitor-protocol.md), shared with monitor tools.
namespace monitor_packet {
constexpr int kText = 1;         // to monitors: int channel, string text
constexpr int kInPlace = 2;      // to monitors: int group, string name, string text
constexpr int kProfile = 3;      // to monitors: thread-profiler snapshot
constexpr int kRequest = 4;      // from monitors: int request (0, 1 or 2)
constexpr int kKeepAlive = 100;  // from monitors: no fields, ignored
constexpr int kData = 101;       // from monitors: string data
}  // namespace monitor_packet

// Receiver of the data packets (id 101) that monitors send.
class DM_API DataParserCallback {
public:
    DataParserCallback() = default;
    virtual ~DataParserCallback() = default;

    // Called from update(), with the monitor lock held, for each data packet in arrival order.
    // `data` is valid only during the call.
    virtual void parseData(const char* data) = 0;
};

// Starts listening for monitors on `port` (on every interface; 0 picks a free port, see
// getMonitorPort). Clears the request flags. Calling it again replaces the previous listener
// and closes the monitors connected to it.
DM_API void init(int port);

// Accepts waiting monitors, dispatches the packets they sent, and drops the ones that have
// disconnected. Does nothing before init.
DM_API void update();

// Closes the listener and every monitor connection. The data callback and the request flags
// stay as they are.
DM_API void deinit();

// Sends printf-formatted text (cut to 255 characters) on `channel` (0 for the second form) to
// every connected monitor. With no monitor connected nothing is formatted.
DM_API void print(int channel, const char* format, ...) DM_PRINTF(2, 3);
DM_API void print(const char* format, ...) DM_PRINTF(1, 2);

// Sends a named value of in-place group `group` (0 for the second form) to every connected
// monitor, which shows it in place rather than scrolling. The value is formatted like print.
DM_API void printInPlace(int group, const char* name, const char* format, ...) DM_PRINTF(3, 4);
DM_API void printInPlace(const char* name, const char* format, ...) DM_PRINTF(2, 3);

// The display name of an in-place group: 0 "Default In Place Data", 1 "Engine Statistics",
// 2 "Streaming Statistics", 3 "Resource Statistics", any other "Unknown In Place Data".
DM_API const char* getInPlaceGroupName(int group);

// Sends `packet` to every connected monitor in the order they connected. Null is ignored.
// Never waits for a monitor: one that stopped reading (4 MiB or more waiting for it) misses
// packets, from this and from the print functions, until it catches up.
DM_API void broadcastPacket(net::Packet* packet);

// True once for each request packet with value `request` received since the last call (several
// before a call count as one); false otherwise, and always for a value outside 0..2.
DM_API bool checkAndClearRequest(int request);

// Sends a snapshot of the thread profiler (packet 3) to every connected monitor.
DM_API void createProfilePacket();

// Registers the receiver of data packets; null unregisters. The callback is not owned.
DM_API void setDataParserCallback(DataParserCallback* callback);

// The port monitors can connect to (the chosen one after init(0)), or 0 when not listening.
DM_API int getMonitorPort();

// The number of monitors connected as of the last update().
DM_API int getMonitorConnectionCount();

}  // namespace dm
