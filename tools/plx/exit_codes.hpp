// What plx ends with. A script may rely on these.
#pragma once

namespace plx::tool {

enum ExitCode : int {
    EXIT_DONE = 0,        // everything asked for is programmed or stored
    EXIT_USAGE = 1,       // the command line is wrong
    EXIT_BAD_FILE = 2,    // the policy file is invalid; nothing was written
    EXIT_SOME_FAILED = 3, // the forwarding plane or the store refused some entries; some records cannot be read
    EXIT_NO_ANSWER = 4,   // not every service node that is expected has answered: those are named
    EXIT_UNREACHABLE = 5, // the store cannot be reached, is silent, refuses the user, or went away
    EXIT_DIFFERS = 6,     // there are differences, and nothing else is wrong
    EXIT_STALE_PLAN = 7,  // the store is not what the plan was made from; nothing was written
    EXIT_NO_OUTPUT = 8,   // all went well, but what was to be printed of it could not be written
    EXIT_LOCKED = 9,      // another apply of this application is at work; nothing was written
    EXIT_NOT_SWEPT = 10,  // all was written, and old records are left that were to be deleted
    EXIT_TWIN = 11,       // a service node of this identity lives
    EXIT_INTERRUPTED = 130,
    EXIT_TERMINATED = 143
};

} // namespace plx::tool
