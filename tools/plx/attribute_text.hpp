// Packed attribute values turned back into the text that people write in a policy.
#pragma once

#include "records/attribute.hpp"
#include <string>

namespace plx::tool {

// Two digits a byte.
std::string hex(std::span<const uint8_t> bytes, std::string_view between = "");

// The value, or value and mask, of a form; encode() of the text gives the same bytes. Bytes that do not fit the form
// are shown as "0x" and hexadecimal digits.
std::string format_value(const Form *form, std::span<const uint8_t> value);

// The attribute's name in its table, or its id where the table has no such row.
std::string attribute_name(const Attribute &attribute, const Form *form);

} // namespace plx::tool
