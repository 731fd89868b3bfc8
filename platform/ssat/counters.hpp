// What the platform has counted, for the shell's own command `counters`.
#ifndef PLX_SSAT_COUNTERS_HPP
#define PLX_SSAT_COUNTERS_HPP

#include "ssat.h"

#include <string>

namespace ssat {

constexpr char counters_help[] = "counters\tthe platform's own counters\n";

// The shells' own. All run on one thread.
ssat_counters &counted();

// One counter a line: a number, a tab and what it counts.
std::string list_counters(void *context);

} // namespace ssat

#endif
