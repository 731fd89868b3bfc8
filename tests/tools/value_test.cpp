// Attribute values from text to the bytes that a forwarding plane takes, and back to what plx shows.
#include "attribute_text.hpp"
#include "attribute_value.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using testing::HasSubstr;
using Texts = std::vector<std::string>;

const Form &form(std::string_view name)
{
    for (const fp_udp_attr_class cls : {FP_UDP_ATTR_FIELD, FP_UDP_ATTR_ACTION, FP_UDP_ATTR_CTRL}) {
        if (const Form *found = find_form(cls, name))
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

TEST(Value, is_encoded_and_shown_as_people_write_it)
{
    const struct {
        const char *attribute, *text, *bytes;
        const char *shown = nullptr; // where it is not the text
    } cases[] = {{"ipv4_src", "10.0.0.0/8", "0a000000ff000000"},
                 {"ipv4_src", "10.1.2.3", "0a010203"},
                 {"ipv4_src", "0.0.0.0/0", "0000000000000000"},
                 {"ipv4_src", "192.0.2.1/32", "c0000201ffffffff"},
                 {"ipv4_src", "10.0.3.0/255.0.255.0", "0a000300ff00ff00"},
                 {"ipv6_src", "2001:db8::/29", "20010db8000000000000000000000000fffffff8000000000000000000000000"},
                 {"ipv6_dst", "::1", "00000000000000000000000000000001"},
                 {"ipv6_src_up", "2001:db8:1::/48", "20010db800010000ffffffffffff0000"},
                 {"dst_mac", "01:80:C2:00:00:0e", "0180c200000e", "01:80:c2:00:00:0e"},
                 {"dst_mac", "01-80-c2-00-00-00/24", "0180c2000000ffffff000000", "01:80:c2:00:00:00/24"},
                 {"src_mac", "01:00:00:00:00:00/01:00:00:00:00:00", "010000000000010000000000"},
                 {"etype", "arp", "0806"},
                 {"etype", "0x86dd", "86dd", "ipv6"},
                 {"etype", "0x8800/0xff00", "8800ff00"},
                 {"ipv4_proto", "TCP", "06", "tcp"},
                 {"ipv4_proto", "tcp/6", "0606", "tcp/0x6"},
                 {"ipv4_proto", "255", "ff"},
                 {"vid", "4095", "0fff"},
                 {"vid", "0x64", "0064", "100"},
                 {"ipv6_flowlab", "1048575", "000fffff"},
                 {"dst_l4port", "https", "01bb"},
                 {"dst_range", "1024-65535", "0400ffff"},
                 {"dst_range", "53", "00350035", "dns"},
                 {"dst_range", "ftp-data-ssh", "00140016"},
                 {"dst_range", "ssh-0x17", "00160017", "ssh-telnet"},
                 {"tcp_flag", "syn/syn+ack", "0212"},
                 {"tcp_flag", "0/0x3f", "003f", "0/fin+syn+rst+psh+ack+urg"},
                 {"ipv4_dscp", "ef", "2e"},
                 {"icmp_type", "router-advert", "86"},
                 {"fwd", "deny", "00"},
                 {"fwd", "permit", "01"},
                 {"no_default", "yes", "01", "true"},
                 {"l3_uc", "0", "00", "false"},
                 {"meter_grp", "4294967295", "ffffffff"},
                 {"acl80", "0x00112233445566778899", "00112233445566778899"},
                 {"ace_udf1", "DEADBEEF/ffffffff", "deadbeefffffffff", "0xdeadbeef/0xffffffff"},
                 {"egress_mask", "0,7-8,255", "8180000000000000000000000000000000000000000000000000000000000001"}};
    for (const auto &[attribute, text, bytes, shown] : cases) {
        SCOPED_TRACE(std::string(attribute) + ' ' + text);
        const Encoding encoding = encode(form(attribute), text);
        EXPECT_EQ("", encoding.error);
        EXPECT_EQ(bytes, hex(encoding.bytes));
        EXPECT_EQ(shown ? shown : text, format_value(&form(attribute), encoding.bytes));
    }
}

TEST(Value, that_is_none_is_refused_with_a_reason)
{
    const struct {
        const char *attribute;
        std::string text;
        const char *error; // part of it
    } cases[] = {{"ipv4_src", "10.0.0.1/8", "has bits outside its mask"},
                 {"ipv4_src", "10.0.0.0/33", "not a prefix length: 0 to 32"},
                 {"ipv4_src", "10.0.0.0/", "mask '' is not an IPv4 address"},
                 {"ipv4_src", "10.0.0.0/8/8", "is not an IPv4 address"},
                 {"ipv4_src", "10.0.0", "is not an IPv4 address"},
                 {"ipv4_src", "::1", "is not an IPv4 address"},
                 {"ipv4_src", std::string("10.0.0.1\0x", 10), "is not an IPv4 address"},
                 {"ipv6_src", "2001:db8::/129", "0 to 128"},
                 {"ipv6_src", "10.0.0.1", "is not an IPv6 address"},
                 {"ipv6_src_up", "2001:db8::1", "lower half"},
                 {"ipv6_src_up", "2001:db8::/65", "0 to 64"},
                 {"dst_mac", "01:80:c2:00:00", "not a MAC address"},
                 {"dst_mac", "01:80:c2:00:00:0g", "not a MAC address"},
                 {"dst_mac", "01.80.c2.00.00.00", "not a MAC address"},
                 {"dst_mac", "", "not a MAC address"},
                 {"vid", "4096", "out of range: 0 to 4095"},
                 {"vid", "-1", "is not a number"},
                 {"vid", "1 ", "is not a number"},
                 {"vid", "0x", "is not a number"},
                 {"vid", "99999999999999999999", "is not a number"},
                 {"vid", "1/4096", "mask '4096' is out of range"},
                 {"etype", "apr", "did you mean 'arp'?"},
                 {"ipv4_proto", "256", "0 to 255"},
                 {"tcp_flag", "syn+", "is not a number"},
                 {"tcp_flag", "syn+sin", "is not a number"},
                 {"tcp_flag", "syn/ack", "outside its mask"},
                 {"dst_range", "20-10", "begins after its end"},
                 {"dst_range", "1-65536", "not a range"},
                 {"dst_range", "-", "not a range"},
                 {"dst_range", "1-2/3", "has a mask"},
                 {"fwd", "drop", "deny, permit"},
                 {"fwd", "2", "out of range: 0 to 1"},
                 {"fwd", "deny/1", "has a mask"},
                 {"no_default", "maybe", "neither true nor false"},
                 {"no_default", "", "neither true nor false"},
                 {"acl80", "0011", "20 hexadecimal digits"},
                 {"acl80", "0011223344556677889g", "20 hexadecimal"},
                 {"egress_mask", "256", "0 to 255"},
                 {"egress_mask", "4-2", "0 to 255"},
                 {"egress_mask", "1,", "0 to 255"},
                 {"egress_mask", "0-99999999999", "0 to 255"},
                 {"etype", std::string(1'000'000, 'a'), "is not a number"},
                 {"vid", "\x1b[31m", "'\\x1b[31m' is not a number"}};
    for (const auto &[attribute, text, error] : cases) {
        const Encoding encoding = encode(form(attribute), text);
        EXPECT_THAT(encoding.error, HasSubstr(error)) << attribute << ' ' << text;
        EXPECT_TRUE(encoding.bytes.empty());
    }
}

TEST(Value, of_bytes_that_are_none_is_shown_as_its_digits)
{
    const std::vector<uint8_t> bytes{1, 2, 0xff};
    EXPECT_EQ("0x0102ff", format_value(&form("ipv4_src"), bytes));
    EXPECT_EQ("0x", format_value(&form("ipv4_src"), {}));
    EXPECT_EQ("0x0102ff", format_value(nullptr, bytes));
}

// What is written of each kind, with masks where the form takes them; the first is in every range.
const std::map<ValueKind, Texts> &samples()
{
    static const std::map<ValueKind, Texts> all{
        {ValueKind::number, {"0", "1"}},
        {ValueKind::flag, {"true", "false"}},
        {ValueKind::mac, {"00:00:5e:00:53:01", "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00"}},
        {ValueKind::ipv4, {"192.0.2.1", "0.0.0.0", "255.255.255.255"}},
        {ValueKind::ipv6, {"2001:db8::1", "::", "::ffff:192.0.2.1", "::192.0.2.1"}},
        {ValueKind::ipv6_upper, {"2001:db8::", "::", "2001:db8:1:2::"}},
        {ValueKind::range, {"0", "53", "1-2", "0-65535", "20-22"}},
        {ValueKind::ports, {"0", "255", "0-255", "1,3,5-7,64"}}};
    return all;
}

const std::map<ValueKind, Texts> &masked()
{
    static const std::map<ValueKind, Texts> all{
        {ValueKind::number, {"0/0", "0/1", "1/1", "1/255"}},
        {ValueKind::mac, {"01:80:c2:00:00:00/24", "00:00:00:00:00:00/0", "01:00:00:00:00:00/01:00:00:00:00:00"}},
        {ValueKind::ipv4, {"10.0.0.0/8", "0.0.0.0/0", "10.0.0.1/32", "10.0.3.0/255.0.255.0", "0.0.0.1/0.0.0.255"}},
        {ValueKind::ipv6, {"2001:db8::/29", "::/0", "::1/128", "::1/::ff", "::/ff00::ff"}},
        {ValueKind::ipv6_upper, {"2001:db8:1::/48", "::/0", "2001:db8::/64", "0:1::/0:1::"}}};
    return all;
}

Texts texts_of(const Form &form)
{
    Texts texts;
    if (form.kind == ValueKind::octets) {
        texts = {"0x" + std::string(2 * size_t{form.bytes()}, '0'), "0x" + std::string(2 * size_t{form.bytes()}, 'a')};
        if (form.mask)
            texts.push_back(texts[1] + "/" + texts[1]);
        return texts;
    }
    texts = samples().at(form.kind);
    if (const auto masks = masked().find(form.kind); form.mask && masks != masked().end())
        texts.insert(texts.end(), masks->second.begin(), masks->second.end());
    return texts;
}

// What is encoded is the form's own, and is shown as text for the same bytes. False: the text is none of its values.
bool is_read_back(const Form &form, const std::string &text)
{
    SCOPED_TRACE(std::string(form.name) + ' ' + text);
    const auto [bytes, error] = encode(form, text);
    if (!error.empty())
        return false;
    EXPECT_EQ(form.bytes() * (text.find('/') == text.npos ? 1 : 2), bytes.size());
    bool known = false;
    EXPECT_EQ(&form, form_of({form.cls, attribute_id(form), bytes}, known));
    const Encoding again = encode(form, format_value(&form, bytes));
    EXPECT_EQ("", again.error);
    EXPECT_EQ(bytes, again.bytes);
    return true;
}

TEST(EveryForm, takes_its_words_and_values_and_gives_them_back)
{
    size_t read_back = 0;
    for (const Form &form : forms()) {
        for (const NamedValue &named : named_values(form.names))
            EXPECT_TRUE(is_read_back(form, std::string(named.name))) << form.name << ' ' << named.name;
        const Texts texts = texts_of(form);
        EXPECT_TRUE(is_read_back(form, texts[0])) << form.name;
        EXPECT_EQ(form.mask, is_read_back(form, texts[0] + '/' + texts[0])) << form.name;
        for (const std::string &text : texts)
            read_back += is_read_back(form, text);
    }
    EXPECT_GE(read_back, 3 * forms().size()) << "most of the samples are no values";
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
