// Text as a terminal may show it, and the columns that it takes there. Both are the locale's matter: see LC_CTYPE.
#pragma once

#include <string>
#include <string_view>

namespace plx::tool {

// With what the locale cannot print, what a terminal might act on and what would turn the line's direction as "\xNN".
std::string printable(std::string_view text);

// The columns of a text that is printable.
size_t width_of(std::string_view text);

// Blanks behind it, up to so many columns.
std::string padded(std::string text, size_t columns);

} // namespace plx::tool
