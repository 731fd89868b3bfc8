// Attribute values as people write them, turned into the bytes that docs/attributes.md describes.
#pragma once

#include "records/attribute.hpp"
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plx::tool {

struct Encoding {
    std::vector<uint8_t> bytes; // value, or value and mask
    std::string error;          // what is wrong with the text; empty when nothing is
};

Encoding encode(const Form &form, std::string_view text);

// The candidate that `text` most likely is a slip of; empty when none is near.
std::string_view nearest(std::string_view text, const std::vector<std::string_view> &candidates);

// An unsigned number, decimal or with 0x, and nothing else.
bool parse_number(std::string_view text, uint64_t &number);
// true, yes, on, false, no, off.
bool parse_bool(std::string_view text, bool &value);

} // namespace plx::tool
