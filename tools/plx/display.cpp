// See display.hpp.
#include "display.hpp"

#include <algorithm>
#include <cwchar>

namespace plx::tool {

namespace {

struct Character {
    size_t bytes;
    int width; // -1: it is not to be shown as it is
};

// Zero-width marks of direction and joining; a combining accent is none.
bool turns_direction(wchar_t character)
{
    return (character >= 0x200b && character <= 0x200f) || (character >= 0x2028 && character <= 0x202e) ||
           (character >= 0x2060 && character <= 0x206f) || character == 0xfeff;
}

Character next(std::string_view text)
{
    std::mbstate_t state{};
    wchar_t character = 0;
    const size_t bytes = std::mbrtowc(&character, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size()) // a zero byte; or (size_t)-1 and -2: not of this locale
        return {1, -1};
    return {bytes, turns_direction(character) ? -1 : wcwidth(character)};
}

void escape(std::string &out, std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
    }
}

} // namespace

std::string printable(std::string_view text)
{
    std::string safe;
    while (!text.empty()) {
        const Character character = next(text);
        if (character.width < 0)
            escape(safe, text.substr(0, character.bytes));
        else
            safe += text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return safe;
}

size_t width_of(std::string_view text)
{
    size_t width = 0;
    while (!text.empty()) {
        const Character character = next(text);
        width += static_cast<size_t>(std::max(character.width, 0));
        text.remove_prefix(character.bytes);
    }
    return width;
}

std::string padded(std::string text, size_t columns)
{
    const size_t width = width_of(text);
    return width < columns ? std::move(text) + std::string(columns - width, ' ') : text;
}

} // namespace plx::tool
