// Attribute values from text to the bytes that a forwarding plane takes.
#include "attribute_value.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using testing::HasSubstr;

const plane::Form &form(std::string_view name)
{
    for (const fp_udp_attr_class cls : {FP_UDP_ATTR_FIELD, FP_UDP_ATTR_ACTION, FP_UDP_ATTR_CTRL}) {
        if (const plane::Form *found = plane::find_form(cls, name))
            return *found;
    }
    throw std::invalid_argument(std::string(name));
}

std::string hex(const std::vector<uint8_t> &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
        text += digits;
    }
    return text;
}

struct Valid {
    const char *attribute;
    const char *text;
    const char *bytes;
};

void PrintTo(const Valid &valid, std::ostream *out)
{
    *out << valid.attribute << ' ' << valid.text;
}

class ValidValue : public testing::TestWithParam<Valid> {};

TEST_P(ValidValue, is_encoded)
{
    const Encoding encoding = encode(form(GetParam().attribute), GetParam().text);
    EXPECT_EQ("", encoding.error);
    EXPECT_EQ(GetParam().bytes, hex(encoding.bytes)) << GetParam().attribute << ' ' << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Values, ValidValue,
    testing::Values(
        Valid{"ipv4_src", "10.0.0.0/8", "0a000000ff000000"}, Valid{"ipv4_src", "10.1.2.3", "0a010203"},
        Valid{"ipv4_src", "0.0.0.0/0", "0000000000000000"}, Valid{"ipv4_src", "192.0.2.1/32", "c0000201ffffffff"},
        Valid{"ipv4_src", "10.0.3.0/255.0.255.0", "0a000300ff00ff00"},
        Valid{"ipv6_src", "2001:db8::/29", "20010db8000000000000000000000000fffffff8000000000000000000000000"},
        Valid{"ipv6_dst", "::1", "00000000000000000000000000000001"},
        Valid{"ipv6_src_up", "2001:db8:1::/48", "20010db800010000ffffffffffff0000"},
        Valid{"dst_mac", "01:80:C2:00:00:0e", "0180c200000e"},
        Valid{"dst_mac", "01-80-c2-00-00-00/24", "0180c2000000ffffff000000"},
        Valid{"src_mac", "01:00:00:00:00:00/01:00:00:00:00:00", "010000000000010000000000"},
        Valid{"etype", "arp", "0806"}, Valid{"etype", "0x86dd", "86dd"}, Valid{"etype", "0x8800/0xff00", "8800ff00"},
        Valid{"ipv4_proto", "TCP", "06"}, Valid{"ipv4_proto", "255", "ff"}, Valid{"vid", "4095", "0fff"},
        Valid{"vid", "0x64", "0064"}, Valid{"ipv6_flowlab", "1048575", "000fffff"},
        Valid{"dst_l4port", "https", "01bb"}, Valid{"dst_range", "1024-65535", "0400ffff"},
        Valid{"dst_range", "53", "00350035"}, Valid{"dst_range", "ftp-data-ssh", "00140016"},
        Valid{"dst_range", "ssh-0x17", "00160017"}, Valid{"tcp_flag", "syn/syn+ack", "0212"},
        Valid{"tcp_flag", "0/0x3f", "003f"}, Valid{"ipv4_dscp", "ef", "2e"}, Valid{"icmp_type", "router-advert", "86"},
        Valid{"fwd", "deny", "00"}, Valid{"fwd", "permit", "01"}, Valid{"no_default", "yes", "01"},
        Valid{"l3_uc", "0", "00"}, Valid{"meter_grp", "4294967295", "ffffffff"},
        Valid{"acl80", "0x00112233445566778899", "00112233445566778899"},
        Valid{"ace_udf1", "DEADBEEF/ffffffff", "deadbeefffffffff"},
        Valid{"egress_mask", "0,7-8,255", "8180000000000000000000000000000000000000000000000000000000000001"}));

struct Invalid {
    const char *attribute;
    std::string text;
    const char *error; // part of it
};

void PrintTo(const Invalid &invalid, std::ostream *out)
{
    *out << invalid.attribute << ": " << invalid.error;
}

class InvalidValue : public testing::TestWithParam<Invalid> {};

TEST_P(InvalidValue, is_refused_with_a_reason)
{
    const Encoding encoding = encode(form(GetParam().attribute), GetParam().text);
    EXPECT_THAT(encoding.error, HasSubstr(GetParam().error)) << GetParam().attribute << ' ' << GetParam().text;
    EXPECT_TRUE(encoding.bytes.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Values, InvalidValue,
    testing::Values(
        Invalid{"ipv4_src", "10.0.0.1/8", "has bits outside its mask"},
        Invalid{"ipv4_src", "10.0.0.0/33", "not a prefix length: 0 to 32"},
        Invalid{"ipv4_src", "10.0.0.0/", "mask '' is not an IPv4 address"},
        Invalid{"ipv4_src", "10.0.0.0/8/8", "is not an IPv4 address"},
        Invalid{"ipv4_src", "10.0.0", "is not an IPv4 address"}, Invalid{"ipv4_src", "::1", "is not an IPv4 address"},
        Invalid{"ipv4_src", std::string("10.0.0.1\0x", 10), "is not an IPv4 address"},
        Invalid{"ipv6_src", "2001:db8::/129", "0 to 128"}, Invalid{"ipv6_src", "10.0.0.1", "is not an IPv6 address"},
        Invalid{"ipv6_src_up", "2001:db8::1", "lower half"}, Invalid{"ipv6_src_up", "2001:db8::/65", "0 to 64"},
        Invalid{"dst_mac", "01:80:c2:00:00", "not a MAC address"},
        Invalid{"dst_mac", "01:80:c2:00:00:0g", "not a MAC address"},
        Invalid{"dst_mac", "01.80.c2.00.00.00", "not a MAC address"}, Invalid{"dst_mac", "", "not a MAC address"},
        Invalid{"vid", "4096", "out of range: 0 to 4095"}, Invalid{"vid", "-1", "is not a number"},
        Invalid{"vid", "1 ", "is not a number"}, Invalid{"vid", "0x", "is not a number"},
        Invalid{"vid", "99999999999999999999", "is not a number"},
        Invalid{"vid", "1/4096", "mask '4096' is out of range"}, Invalid{"etype", "apr", "did you mean 'arp'?"},
        Invalid{"ipv4_proto", "256", "0 to 255"}, Invalid{"tcp_flag", "syn+", "is not a number"},
        Invalid{"tcp_flag", "syn+sin", "is not a number"}, Invalid{"tcp_flag", "syn/ack", "outside its mask"},
        Invalid{"dst_range", "20-10", "begins after its end"}, Invalid{"dst_range", "1-65536", "not a range"},
        Invalid{"dst_range", "-", "not a range"}, Invalid{"dst_range", "1-2/3", "has a mask"},
        Invalid{"fwd", "drop", "deny, permit"}, Invalid{"fwd", "2", "out of range: 0 to 1"},
        Invalid{"fwd", "deny/1", "has a mask"}, Invalid{"no_default", "maybe", "neither true nor false"},
        Invalid{"no_default", "", "neither true nor false"}, Invalid{"acl80", "0011", "20 hexadecimal digits"},
        Invalid{"acl80", "0011223344556677889g", "20 hexadecimal"}, Invalid{"egress_mask", "256", "0 to 255"},
        Invalid{"egress_mask", "4-2", "0 to 255"}, Invalid{"egress_mask", "1,", "0 to 255"},
        Invalid{"egress_mask", "0-99999999999", "0 to 255"},
        Invalid{"etype", std::string(1'000'000, 'a'), "is not a number"},
        Invalid{"vid", "\x1b[31m", "'\\x1b[31m' is not a number"}));

TEST(EveryForm, encodes_all_of_its_words_into_as_many_bytes_as_it_says)
{
    for (const plane::Form &each : plane::forms()) {
        for (const plane::NamedValue &named : plane::named_values(each.names)) {
            const Encoding encoding = encode(each, named.name);
            EXPECT_EQ(each.bytes(), encoding.bytes.size()) << each.name << ' ' << named.name << ' ' << encoding.error;
        }
    }
}

TEST(EveryForm, encodes_values_that_a_plane_takes)
{
    const std::map<plane::ValueKind, std::string> samples{{plane::ValueKind::number, "1"},
                                                          {plane::ValueKind::flag, "true"},
                                                          {plane::ValueKind::mac, "00:00:5e:00:53:01"},
                                                          {plane::ValueKind::ipv4, "192.0.2.1"},
                                                          {plane::ValueKind::ipv6, "2001:db8::1"},
                                                          {plane::ValueKind::ipv6_upper, "2001:db8::"},
                                                          {plane::ValueKind::range, "1-2"},
                                                          {plane::ValueKind::ports, "1"}};
    for (const plane::Form &each : plane::forms()) {
        const bool octets = each.kind == plane::ValueKind::octets;
        const std::string text = octets ? std::string(2 * size_t{each.bytes()}, '1') : samples.at(each.kind);
        const Encoding encoding = encode(each, text);
        bool known = false;
        const plane::Form *taken = plane::form_of({each.cls, plane::attribute_id(each), encoding.bytes}, known);
        EXPECT_EQ(&each, taken) << each.name << ' ' << encoding.error;
        EXPECT_EQ(each.mask, encode(each, text + "/" + text).error.empty()) << each.name;
    }
}

TEST(Nearest, finds_slips_and_leaves_other_words_alone)
{
    EXPECT_EQ("ipv4_src", nearest("ip4_src", {"ipv4_dst", "ipv4_src"}));
    EXPECT_EQ("entries", nearest("Entrys", {"id", "entries"}));
    EXPECT_EQ("", nearest("quarantine", {"id", "entries"}));
    EXPECT_EQ("", nearest("", {"vid", "ip_id"}));
}

} // namespace
} // namespace plx::tool
