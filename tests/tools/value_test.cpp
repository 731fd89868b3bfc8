// Every attribute takes its words and what is written of its kind, and gives them back.
#include "attribute_text.hpp"
#include "attribute_value.hpp"

#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using Texts = std::vector<std::string>;

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

} // namespace
} // namespace plx::tool
