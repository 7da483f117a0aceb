// What net::Socket and net::Listener need from the operating system: thin wrappers over its
// socket calls, one implementation file per OS. Everything above them (framing, the send ring,
// the receive buffer, connection states) is portable and lives in socket.cpp.
#pragma once

#include <cstdint>

#include "zu/event.h"
#include "zu/string.h"

namespace net {
namespace platform {

// The result of a send or receive call that did not fail outright.
enum class IoStatus : uint8_t {
    Done,        // some bytes moved (see the count)
    WouldBlock,  // nothing can move now; try again when the handle is ready
    Broken       // the connection is gone: closed by the peer, reset, or failed
};

struct IoResult {
    IoStatus status;
    uint32_t bytes;  // bytes moved when status is Done
};

// A piece of memory for a gathered send.
struct ConstBytes {
    const uint8_t* data;
    uint32_t size;
};

// A piece of memory for a scattered receive.
struct MutableBytes {
    uint8_t* data;
    uint32_t size;
};

enum class ConnectStatus : uint8_t { Connected, Pending, Failed };

// Resolves `host` (dotted numbers, or a name) to an IPv4 address in network byte order. Null
// or "" means any address.
bool resolveIPv4(const char* host, uint32_t* address);
// "a.b.c.d" of an IPv4 address in network byte order.
zu::InplaceString<128> formatIPv4(uint32_t address);

// Opens a TCP socket made fit for this runtime (non-blocking, no delay, inherited by no child,
// no signal when the peer has gone); kInvalidHandle on failure.
zu::NativeHandle openTcpSocket();
// Makes an adopted socket fit for this runtime as above. False when the handle refused.
bool configureSocket(zu::NativeHandle handle);
void closeSocket(zu::NativeHandle handle);

// Starts connecting to address:port (network byte order address, host order port).
ConnectStatus startConnect(zu::NativeHandle handle, uint32_t address, uint16_t port);
// For a pending connect: Pending while still under way, then Connected or Failed.
ConnectStatus pollConnect(zu::NativeHandle handle);
// The peer's IPv4 address (network byte order) of a connected socket; false when unknown.
bool peerAddress(zu::NativeHandle handle, uint32_t* address);

// Sends the pieces in order, as much as the OS takes now. Interrupted calls are retried.
IoResult send(zu::NativeHandle handle, const ConstBytes* pieces, uint32_t count);
// Reads into the pieces in order, as much as the OS has now. Interrupted calls are retried; an
// orderly close is Broken.
IoResult receive(zu::NativeHandle handle, const MutableBytes* pieces, uint32_t count);
// Waits up to `timeoutMs` for the socket to take bytes (or for a connect to finish). True
// when it became ready.
bool waitWritable(zu::NativeHandle handle, uint32_t timeoutMs);

}  // namespace platform
}  // namespace net
