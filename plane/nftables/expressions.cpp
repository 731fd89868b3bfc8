// See expressions.hpp.
#include "plane/nftables/expressions.hpp"

#include "plane/packet/compile.hpp"
#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <endian.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

namespace plx::plane::nftables {

namespace {

using namespace packet;

// What a rule's expressions are made of: attributes at the end of a message. Once one has found no room, the others do
// nothing.
class Expressions {
  public:
    Expressions(nlmsghdr *message, size_t capacity) : message_(message), capacity_(capacity) {}

    void number(uint16_t type, uint32_t value) { put(type, htonl(value)); }
    void wide(uint16_t type, uint64_t value) { put(type, htobe64(value)); }
    void half(uint16_t type, uint16_t value) { put(type, htons(value)); }
    void text(uint16_t type, std::string_view text)
    {
        const std::string terminated(text);
        bytes(type, std::span(reinterpret_cast<const uint8_t *>(terminated.c_str()), terminated.size() + 1));
    }
    void bytes(uint16_t type, std::span<const uint8_t> bytes)
    {
        good_ = good_ && mnl_attr_put_check(message_, capacity_, type, bytes.size(), bytes.data());
    }

    // Whatever `fill` puts is nested.
    template <typename Fill> void nest(uint16_t type, Fill fill)
    {
        nlattr *start = good_ ? mnl_attr_nest_start_check(message_, capacity_, type) : nullptr;
        good_ = start != nullptr;
        if (!good_)
            return;
        fill();
        mnl_attr_nest_end(message_, start);
    }

    template <typename Fill> void expression(const char *name, Fill fill)
    {
        nest(NFTA_LIST_ELEM, [&] {
            text(NFTA_EXPR_NAME, name);
            nest(NFTA_EXPR_DATA, fill);
        });
    }

    void value(uint16_t type, std::span<const uint8_t> value)
    {
        nest(type, [&] { bytes(NFTA_DATA_VALUE, value); });
    }

    void fail() { good_ = false; }
    bool good() const { return good_; }

  private:
    template <typename Number> void put(uint16_t type, Number value)
    {
        good_ = good_ && mnl_attr_put_check(message_, capacity_, type, sizeof value, &value);
    }

    nlmsghdr *message_;
    size_t capacity_;
    bool good_ = true;
};

constexpr uint32_t value_register = NFT_REG_1;
constexpr uint16_t ipv4_checksum_offset = 10;

// A number as the host writes it, for registers that hold one.
std::array<uint8_t, 4> host_bytes(uint32_t number)
{
    std::array<uint8_t, 4> bytes;
    memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

// The value to compare with: the mark's register holds a number of the host's.
Bytes in_register(const Source &source, Bytes bytes)
{
    if (source.load == Load::mark && htonl(1) != 1)
        std::reverse(bytes.data.begin(), bytes.data.begin() + bytes.size);
    return bytes;
}

uint32_t payload_base(Load load)
{
    return load == Load::link      ? NFT_PAYLOAD_LL_HEADER
           : load == Load::network ? NFT_PAYLOAD_NETWORK_HEADER
                                   : NFT_PAYLOAD_TRANSPORT_HEADER;
}

uint32_t meta_key(Load load)
{
    return load == Load::protocol  ? NFT_META_PROTOCOL
           : load == Load::l4proto ? NFT_META_L4PROTO
           : load == Load::mark    ? NFT_META_MARK
           : load == Load::input   ? NFT_META_IIFNAME
                                   : NFT_META_OIFNAME;
}

void put_payload(Expressions &out, const Source &source, uint32_t target)
{
    out.expression("payload", [&] {
        out.number(NFTA_PAYLOAD_DREG, target);
        out.number(NFTA_PAYLOAD_BASE, payload_base(source.load));
        out.number(NFTA_PAYLOAD_OFFSET, source.offset);
        out.number(NFTA_PAYLOAD_LEN, source.size);
    });
}

void put_extension(Expressions &out, const Source &source, uint32_t target)
{
    out.expression("exthdr", [&] {
        const auto type = static_cast<uint8_t>(source.offset);
        out.number(NFTA_EXTHDR_DREG, target);
        out.bytes(NFTA_EXTHDR_TYPE, {&type, 1});
        out.number(NFTA_EXTHDR_OFFSET, 0);
        out.number(NFTA_EXTHDR_LEN, 1);
        out.number(NFTA_EXTHDR_FLAGS, NFT_EXTHDR_F_PRESENT);
        out.number(NFTA_EXTHDR_OP, NFT_EXTHDR_OP_IPV6);
    });
}

void put_load(Expressions &out, const Source &source, uint32_t target)
{
    if (source.load == Load::link || source.load == Load::network || source.load == Load::transport)
        return put_payload(out, source, target);
    if (source.load == Load::extension)
        return put_extension(out, source, target);
    out.expression("meta", [&] {
        out.number(NFTA_META_DREG, target);
        out.number(NFTA_META_KEY, meta_key(source.load));
    });
}

void put_bitwise(Expressions &out, const Bytes &mask, const Bytes &flip, uint32_t target = value_register)
{
    out.expression("bitwise", [&] {
        out.number(NFTA_BITWISE_SREG, target);
        out.number(NFTA_BITWISE_DREG, target);
        out.number(NFTA_BITWISE_LEN, mask.size);
        out.value(NFTA_BITWISE_MASK, mask.span());
        out.value(NFTA_BITWISE_XOR, flip.span());
    });
}

void put_comparison(Expressions &out, uint32_t operation, std::span<const uint8_t> value)
{
    out.expression("cmp", [&] {
        out.number(NFTA_CMP_SREG, value_register);
        out.number(NFTA_CMP_OP, operation);
        out.value(NFTA_CMP_DATA, value);
    });
}

void put_range(Expressions &out, const Test &test)
{
    out.expression("range", [&] {
        out.number(NFTA_RANGE_SREG, value_register);
        out.number(NFTA_RANGE_OP, test.relation == Relation::within ? NFT_RANGE_EQ : NFT_RANGE_NEQ);
        out.value(NFTA_RANGE_FROM_DATA, test.value.span());
        out.value(NFTA_RANGE_TO_DATA, test.last.span());
    });
}

void put_test(Expressions &out, const Test &test)
{
    put_load(out, test.source, value_register);
    if (test.set != nullptr) {
        out.expression("lookup", [&] {
            out.text(NFTA_LOOKUP_SET, test.set->name);
            out.number(NFTA_LOOKUP_SREG, value_register);
            out.number(NFTA_LOOKUP_FLAGS, test.relation == Relation::none_of ? NFT_LOOKUP_F_INV : 0);
        });
        return;
    }
    if (test.relation == Relation::within || test.relation == Relation::outside)
        return put_range(out, test);
    if (test.mask.size != 0)
        put_bitwise(out, in_register(test.source, test.mask), Bytes(0, test.mask.size));
    put_comparison(out, test.relation == Relation::equal ? NFT_CMP_EQ : NFT_CMP_NEQ,
                   in_register(test.source, test.value).span());
}

void put_object(Expressions &out, uint32_t type, const std::string &name)
{
    out.expression("objref", [&] {
        out.number(NFTA_OBJREF_IMM_TYPE, type);
        out.text(NFTA_OBJREF_IMM_NAME, name);
    });
}

void put_sampling(Expressions &out, uint32_t one_in)
{
    out.expression("numgen", [&] {
        out.number(NFTA_NG_DREG, value_register);
        out.number(NFTA_NG_MODULUS, one_in);
        out.number(NFTA_NG_TYPE, NFT_NG_INCREMENTAL);
    });
    put_comparison(out, NFT_CMP_EQ, host_bytes(0));
}

void put_number(Expressions &out, uint32_t number)
{
    out.expression("immediate", [&] {
        out.number(NFTA_IMMEDIATE_DREG, value_register);
        out.value(NFTA_IMMEDIATE_DATA, host_bytes(number));
    });
}

void put_verdict(Expressions &out, int32_t code, const std::string &chain = {})
{
    const auto put_code = [&] {
        out.number(NFTA_VERDICT_CODE, static_cast<uint32_t>(code));
        if (!chain.empty())
            out.text(NFTA_VERDICT_CHAIN, chain);
    };
    const auto put_data = [&] { out.nest(NFTA_DATA_VERDICT, put_code); };
    out.expression("immediate", [&] {
        out.number(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
        out.nest(NFTA_IMMEDIATE_DATA, put_data);
    });
}

// Whatever a device's index is needed for: dup and fwd.
void put_device(Expressions &out, const char *what, uint16_t attribute, std::optional<uint32_t> index)
{
    if (!index)
        return out.fail();
    put_number(out, *index);
    out.expression(what, [&] { out.number(attribute, value_register); });
}

// Visits the actions of a rule.
struct ActionWriter {
    Expressions &out;
    const Interfaces &interfaces;

    void operator()(const CountOn &on) const { put_object(out, NFT_OBJECT_COUNTER, counter_name(on.counter)); }
    void operator()(const Log &log) const
    {
        out.expression("log", [&] { out.half(NFTA_LOG_GROUP, log.group); });
    }
    void operator()(const Copy &copy) const
    {
        put_device(out, "dup", NFTA_DUP_SREG_DEV, interfaces.index_of(copy.interface));
    }
    void operator()(const SetPriority &set) const
    {
        put_number(out, set.priority);
        out.expression("meta", [&] {
            out.number(NFTA_META_SREG, value_register);
            out.number(NFTA_META_KEY, NFT_META_PRIORITY);
        });
    }
    void operator()(const Write &write) const
    {
        Bytes keep = write.mask;
        for (size_t at = 0; at < keep.size; ++at)
            keep.data[at] = static_cast<uint8_t>(~keep.data[at]);
        put_payload(out, write.at, value_register);
        put_bitwise(out, keep, write.value);
        out.expression("payload", [&] {
            out.number(NFTA_PAYLOAD_SREG, value_register);
            out.number(NFTA_PAYLOAD_BASE, payload_base(write.at.load));
            out.number(NFTA_PAYLOAD_OFFSET, write.at.offset);
            out.number(NFTA_PAYLOAD_LEN, write.at.size);
            out.number(NFTA_PAYLOAD_CSUM_TYPE, write.ipv4_checksum ? NFT_PAYLOAD_CSUM_INET : NFT_PAYLOAD_CSUM_NONE);
            out.number(NFTA_PAYLOAD_CSUM_OFFSET, write.ipv4_checksum ? ipv4_checksum_offset : 0);
        });
    }
};

void put_counter(Expressions &out, const Counters &start)
{
    out.expression("counter", [&] {
        out.wide(NFTA_COUNTER_BYTES, start.bytes);
        out.wide(NFTA_COUNTER_PACKETS, start.packets);
    });
}

void put_rule(Expressions &out, const Rule &rule, const Interfaces &interfaces, const Counters &start)
{
    for (const Test &test : rule.tests)
        put_test(out, test);
    if (!rule.over_meter.empty())
        put_object(out, NFT_OBJECT_LIMIT, rule.over_meter);
    if (rule.one_in != 0)
        put_sampling(out, rule.one_in);
    if (rule.counted)
        put_counter(out, start);
    for (const Action &action : rule.actions)
        std::visit(ActionWriter{out, interfaces}, action);
    if (rule.verdict == Verdict::accept || rule.verdict == Verdict::drop)
        put_verdict(out, rule.verdict == Verdict::accept ? NF_ACCEPT : NF_DROP);
    if (rule.verdict == Verdict::redirect)
        put_device(out, "fwd", NFTA_FWD_SREG_DEV, interfaces.index_of(rule.interface));
}

// All or nothing.
template <typename Fill> bool put_expressions(nlmsghdr *message, size_t capacity, Fill fill)
{
    const uint32_t before = message->nlmsg_len;
    Expressions out(message, capacity);
    out.nest(NFTA_RULE_EXPRESSIONS, [&] { fill(out); });
    if (!out.good())
        message->nlmsg_len = before;
    return out.good();
}

} // namespace

bool put_rule_expressions(nlmsghdr *message, size_t capacity, const Rule &rule, const Interfaces &interfaces,
                          const Counters &start)
{
    return put_expressions(message, capacity, [&](Expressions &out) { put_rule(out, rule, interfaces, start); });
}

bool put_jump_expressions(nlmsghdr *message, size_t capacity, std::span<const Test> guards, const std::string &chain)
{
    return put_expressions(message, capacity, [&](Expressions &out) {
        for (const Test &guard : guards)
            put_test(out, guard);
        put_verdict(out, NFT_JUMP, chain);
    });
}

// A field of a map's key, of which only the mask's bits count.
static void put_masked_load(Expressions &out, const Source &field, const uint8_t *bits, uint32_t target)
{
    put_load(out, field, target);
    if (std::any_of(bits, bits + field.size, [](uint8_t byte) { return byte != 0xff; }))
        put_bitwise(out, Bytes({bits, field.size}), Bytes(0, field.size), target);
}

bool put_lookup_expressions(nlmsghdr *message, size_t capacity, std::span<const Source> fields, const std::string &mask,
                            const std::string &map)
{
    return put_expressions(message, capacity, [&](Expressions &out) {
        uint32_t target = NFT_REG32_00;
        size_t at = 0;
        for (const Source &field : fields) {
            put_masked_load(out, field, reinterpret_cast<const uint8_t *>(mask.data()) + at, target);
            target += static_cast<uint32_t>(padded(field) / 4);
            at += padded(field);
        }
        out.expression("lookup", [&] {
            out.text(NFTA_LOOKUP_SET, map);
            out.number(NFTA_LOOKUP_SREG, NFT_REG32_00);
            out.number(NFTA_LOOKUP_DREG, NFT_REG_VERDICT);
        });
    });
}

} // namespace plx::plane::nftables
