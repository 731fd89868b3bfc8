// What the files of this area share: the source path that they report under.
#pragma once

#include "../fp_udp_dbg/channel/channel.hpp"

namespace plx::acldb {

inline constexpr char source[] = "app/fp_udp_acldb.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

} // namespace plx::acldb
