// Sockets that listen, from what an operator types.
#pragma once

#include <string>

namespace plx::tool {

struct Listening {
    int fd = -1;         // the caller's; -1: `error` tells
    bool beyond = false; // other machines can reach it
    std::string path{};  // of a socket that was made; to be removed at the end
    std::string error{};
};

// "PORT" and "localhost:PORT" are this machine's loopback, "127.0.0.1:PORT" and "[::1]:PORT" an address, "unix:/path" a
// socket for its owner and group; a socket there that nobody serves any more makes room.
Listening listen_at(const std::string &where);

} // namespace plx::tool
