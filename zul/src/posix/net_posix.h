// Socket helpers shared by net::Socket and net::Listener on POSIX systems.
#pragma once

#include <netinet/in.h>

#include <cstdint>

namespace net {
namespace posix {

// Resolves `host` (dotted numbers, or a name looked up with getaddrinfo) to an IPv4 address in
// network byte order. Null or "" means any address.
bool resolveIPv4(const char* host, in_addr* address);

// Makes a TCP socket fit for this runtime: non-blocking, close-on-exec, TCP_NODELAY, and no
// SIGPIPE where the OS offers that per socket. False when the descriptor refused.
bool configureSocket(int fd);

}  // namespace posix
}  // namespace net
