// The attributes of an entry as a forwarding plane reads them: walking a packed buffer, and the form of every
// attribute's value.
//
// An attribute's value is its form's bytes in network byte order; a match field whose form takes a mask may be twice
// as long, value then mask. docs/attributes.md shows the same to people.
#pragma once

#include <cstdint>
#include <optional>
#include <plx/types.h>
#include <span>
#include <string_view>
#include <vector>

namespace plx {

enum class ValueKind : uint8_t {
    number,     // unsigned, in as many of 1, 2, 4 or 8 bytes as its bits need
    flag,       // one byte: 0 or 1
    mac,        // 6 bytes
    ipv4,       // 4 bytes
    ipv6,       // 16 bytes
    ipv6_upper, // the upper 8 bytes of an IPv6 address
    range,      // two layer 4 ports of 2 bytes, lowest and highest
    ports,      // 32 bytes, a bit for each of 256 switch ports: port 0 is the top bit of the first byte
    octets      // as many bytes as the form says, without a number's meaning
};

constexpr bool is_address(ValueKind kind)
{
    return kind == ValueKind::mac || kind == ValueKind::ipv4 || kind == ValueKind::ipv6 ||
           kind == ValueKind::ipv6_upper;
}

// The words that may stand for a number.
enum class NameSet : uint8_t {
    none,
    protocol,
    port,
    ethertype,
    dscp,
    tcp_flags, // a set: joined with "+"
    ip_flags,  // a set
    icmp_type,
    arp_op,
    verdict,
    fragment,
    stp_state,
    ip_type,
    vlan_form,
    color
};

struct NamedValue {
    std::string_view name;
    uint32_t value;
};
std::span<const NamedValue> named_values(NameSet set);
std::string_view name_of(NameSet set); // as the document calls it
constexpr bool is_flag_set(NameSet set)
{
    return set == NameSet::tcp_flags || set == NameSet::ip_flags;
}

struct Form {
    fp_udp_attr_class cls;
    std::string_view name;
    ValueKind kind;
    uint8_t bits; // of the value; the largest number is 2^bits - 1
    bool mask;    // value/mask may be given
    std::string_view meaning;
    NameSet names = NameSet::none;

    uint32_t bytes() const; // of the value alone
};

// One form for each row of ctrl_attr, field_attr and action_attr.
std::span<const Form> forms();
const Form *find_form(fp_udp_attr_class cls, std::string_view name);
// The id of a form's attribute in its name table; 0 when the table has no such name.
uint32_t attribute_id(const Form &form);

// One packed attribute; `value` points into the buffer that was walked.
struct Attribute {
    uint32_t cls;
    uint32_t id;
    std::span<const uint8_t> value;
};

// The attributes of a packed buffer in order; nullopt when a length reaches past the buffer's end.
std::optional<std::vector<Attribute>> unpack(std::span<const uint8_t> packed);

// The form that an attribute has by class, id and length; two names may share an id. When none fits, `known` tells
// whether the id exists at all.
const Form *form_of(const Attribute &attribute, bool &known);

} // namespace plx
