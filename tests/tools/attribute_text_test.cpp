// Attribute values as plx shows them: what a policy's author wrote, or other words for the same bytes.
#include "attribute_text.hpp"
#include "attribute_value.hpp"

#include <gtest/gtest.h>
#include <map>

namespace plx::tool {
namespace {

using plane::Form;
using plane::ValueKind;
using Texts = std::vector<std::string>;

// What is written of each kind, with masks where the form takes them; words of the form's own come on top.
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
    for (const plane::NamedValue &named : plane::named_values(form.names))
        texts.emplace_back(named.name);
    if (const auto masks = masked().find(form.kind); form.mask && masks != masked().end())
        texts.insert(texts.end(), masks->second.begin(), masks->second.end());
    return texts;
}

TEST(AttributeText, is_read_back_as_the_same_bytes_for_every_form)
{
    int read_back = 0;
    for (const Form &form : plane::forms())
        for (const std::string &text : texts_of(form)) {
            const Encoding encoding = encode(form, text);
            if (!encoding.error.empty())
                continue; // out of this form's range
            const std::string shown = format_value(&form, encoding.bytes);
            const Encoding again = encode(form, shown);
            EXPECT_EQ("", again.error) << form.name << ' ' << text << " is shown as " << shown;
            EXPECT_EQ(encoding.bytes, again.bytes) << form.name << ' ' << text << " is shown as " << shown;
            ++read_back;
        }
    EXPECT_GE(read_back, static_cast<int>(3 * plane::forms().size())) << "most of the samples are no values";
}

struct Shown {
    const char *attribute;
    const char *text; // as it is written, and as it is shown
};

void PrintTo(const Shown &shown, std::ostream *out)
{
    *out << shown.attribute << ' ' << shown.text;
}

class ShownValue : public testing::TestWithParam<Shown> {};

TEST_P(ShownValue, is_what_people_write)
{
    const Form *form = nullptr;
    for (const fp_udp_attr_class cls : {FP_UDP_ATTR_FIELD, FP_UDP_ATTR_ACTION, FP_UDP_ATTR_CTRL})
        form = form == nullptr ? plane::find_form(cls, GetParam().attribute) : form;
    ASSERT_NE(nullptr, form);
    EXPECT_EQ(GetParam().text, format_value(form, encode(*form, GetParam().text).bytes));
}

INSTANTIATE_TEST_SUITE_P(Values, ShownValue,
                         testing::Values(Shown{"ipv4_src", "10.0.0.0/8"}, Shown{"ipv4_src", "10.0.3.0/255.0.255.0"},
                                         Shown{"ipv6_src", "2001:db8::/29"}, Shown{"ipv6_src_up", "2001:db8:1::/48"},
                                         Shown{"dst_mac", "01:80:c2:00:00:00/24"}, Shown{"etype", "arp"},
                                         Shown{"vid", "4095"}, Shown{"dst_l4port", "https"},
                                         Shown{"dst_range", "1024-65535"}, Shown{"dst_range", "ftp-data-ssh"},
                                         Shown{"tcp_flag", "syn/syn+ack"}, Shown{"fwd", "deny"},
                                         Shown{"no_default", "true"}, Shown{"egress_mask", "0,7-8,255"},
                                         Shown{"acl80", "0x00112233445566778899"}));

TEST(AttributeText, of_bytes_that_are_no_value_is_their_digits)
{
    const Form *form = plane::find_form(FP_UDP_ATTR_FIELD, "ipv4_src");
    const std::vector<uint8_t> bytes{1, 2, 0xff};
    EXPECT_EQ("0x0102ff", format_value(form, bytes));
    EXPECT_EQ("0x", format_value(form, {}));
    EXPECT_EQ("0x0102ff", format_value(nullptr, bytes));
}

} // namespace
} // namespace plx::tool
