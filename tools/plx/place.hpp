// Where in a file an error is.
#pragma once

#include <string>

namespace plx::tool {

struct Place {
    std::string file{};
    int line = 0; // counted from 1; 0 stands for the file as a whole
    int column = 0;
};

} // namespace plx::tool
