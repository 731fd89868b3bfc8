// What stands in a file that an address names: a password, a certificate, a key.
#ifndef TQ_MOM_SMALL_FILE_HPP
#define TQ_MOM_SMALL_FILE_HPP

#include <cstddef>
#include <string>

namespace mom {

/// The first `limit` bytes of a regular file: anything else could make us wait, or is a mistake. Empty with `trouble`
/// telling why, which also a file without any bytes has.
std::string read_small_file(const std::string &path, size_t limit, std::string &trouble);

} // namespace mom

#endif
