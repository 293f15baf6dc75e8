#pragma once

#include <httplib.h>

// The connection under a request. cpp-httplib 0.11 does not hand handlers their socket, so it is
// found by its addresses: the descriptor whose local port and peer address match the request.
// Used to drop a connection on purpose (fault switch) and to notice that a long poll's client has
// gone away before a command is handed to it.
namespace pavix::devserver::SocketControl {

// The descriptor, or -1.
int find(const httplib::Request& req);
// Resets the connection: the client sees it closed with no reply.
void drop(int fd);
// False once the peer has closed its side (or the descriptor is no longer a socket).
bool alive(int fd);

}  // namespace pavix::devserver::SocketControl
