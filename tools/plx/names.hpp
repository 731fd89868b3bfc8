// Names as the library's fixed fields hold them.
#pragma once

#include <algorithm>
#include <cstring>
#include <plx/types.h>
#include <string>
#include <string_view>

namespace plx::tool {

// Names were checked to fit when the policy was read.
template <size_t Size> void copy_name(char (&field)[Size], const std::string &name)
{
    std::memcpy(field, name.c_str(), std::min(name.size(), Size - 1));
}

inline void copy_name(uint8_t (&priv)[FP_UDP_PRIV_SIZE], std::string_view name)
{
    std::memcpy(priv, name.data(), std::min(name.size(), sizeof priv));
}

} // namespace plx::tool
