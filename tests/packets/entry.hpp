// Entries as text: "vid=100/0xff0 ipv4_src=10.0.0.0/8 -> cos=5 fwd=deny !permit2deny=1": match fields, and behind the
// arrow actions; "!" goes before a control, "#" before a value that is given as bytes.
#pragma once

#include "plane/packet/compile.hpp"

namespace plx::test {

// Throws std::invalid_argument.
Requested entry_of(const std::string &text);
std::string text_of(const Requested &entry); // entry_of() of it is the entry
// One attribute, as entry_of() reads it.
void push(Requested &entry, const Form &form, std::span<const uint8_t> value);

// Ports 1 to 3, a meter, a mirror session, a sample group and the user-defined fields.
plane::packet::Config configuration();

} // namespace plx::test
