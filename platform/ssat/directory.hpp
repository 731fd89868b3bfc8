// Where modules' sockets live, and under which names: shared by the module's end and the client's.
//
// A module is named after its process, and a process may name itself anything, so a name is escaped until it is one
// plain file name. Sockets are reached through the directory's descriptor: what was checked is what is used, and a long
// directory path does not meet the short limit of socket addresses.
#ifndef PLX_SSAT_DIRECTORY_HPP
#define PLX_SSAT_DIRECTORY_HPP

#include "owned_fd.hpp"

#include <string>
#include <string_view>

namespace ssat {

std::string escape(std::string_view module);
std::string unescape(std::string_view file_name);

std::string directory_path();

// Opens the directory, with `create` making it first. None, with errno set, unless it is a directory of this user's
// (for root: anybody's, when not creating) that nobody else may enter; EPERM when it is another's or open to others.
owned_fd open_directory(bool create);

// A connected socket, or none with errno set: ENOENT without a socket of that name, ECONNREFUSED when it is a dead
// process's, EAGAIN when the module is alive and busy.
owned_fd connect_to(int directory, const std::string &file_name, int flags);

// A listening socket for the module in place of a dead process's, never of a living one's: then under MODULE@PID.
// `file_name` receives the name. None, with errno set, on failure.
owned_fd listen_as(int directory, std::string_view module, std::string &file_name);

} // namespace ssat

#endif
