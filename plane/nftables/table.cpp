// See table.hpp.
#include "plane/nftables/table.hpp"

#include <algorithm>
#include <cstring>

namespace plx::plane::nftables {

namespace {

// Not in the headers of Debian 12: a table that outlives whoever owns it.
constexpr uint32_t persist = 1U << 2U;

// How nft(8) calls the values of a set.
constexpr uint32_t shown_as_ethertype = 10;
constexpr uint32_t shown_as_protocol = 12;

constexpr uint32_t policy_accept = NF_ACCEPT;

// How nft(8) calls what is looked up in a map, by size: it must know the size of each field to take keys apart.
uint32_t shown_as(const packet::Source &field)
{
    constexpr uint32_t address4 = 7, address6 = 8, hardware_address = 9, port = 13, code = 14;
    if (field.load == packet::Load::protocol)
        return shown_as_ethertype;
    if (field.load == packet::Load::l4proto)
        return shown_as_protocol;
    return field.size == 1   ? code
           : field.size == 2 ? port
           : field.size == 4 ? address4
           : field.size == 6 ? hardware_address
                             : address6;
}

constexpr unsigned bits_of_type = 6; // in the type of a key of several fields

constexpr size_t elements_per_question = 256;

// One expression of a rule, which is open while this lives.
class Expression {
  public:
    Expression(nlmsghdr *message, const char *name)
        : element_(message, NFTA_LIST_ELEM), data_((put_text(message, NFTA_EXPR_NAME, name), message), NFTA_EXPR_DATA)
    {
    }

  private:
    Nest element_, data_;
};

void put_drop(nlmsghdr *message)
{
    const Expression immediate(message, "immediate");
    put32(message, NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
    const Nest data(message, NFTA_IMMEDIATE_DATA);
    const Nest verdict(message, NFTA_DATA_VERDICT);
    put32(message, NFTA_VERDICT_CODE, NF_DROP);
}

void copy(std::span<const uint8_t> from, std::vector<uint8_t> &to)
{
    to.assign(from.begin(), from.end());
}

Counters counters_in(const nlattr *expressions)
{
    Counters counters;
    for_each(expressions, [&](const nlattr *element) {
        const Attributes expression(element);
        if (expression.text(NFTA_EXPR_NAME) != "counter")
            return;
        const Attributes counter(expression[NFTA_EXPR_DATA]);
        counters.packets += counter.number64(NFTA_COUNTER_PACKETS);
        counters.bytes += counter.number64(NFTA_COUNTER_BYTES);
    });
    return counters;
}

void put_key(nlmsghdr *message, const packet::Element &element)
{
    const Nest nest(message, NFTA_SET_ELEM_KEY);
    mnl_attr_put(message, NFTA_DATA_VALUE, element.key.size(), element.key.data());
}

ElementImage element_of(const nlattr *nest)
{
    const Attributes attributes(nest);
    const Attributes data(attributes[NFTA_SET_ELEM_DATA]), verdict(data[NFTA_DATA_VERDICT]);
    const bool drops = verdict.number32(NFTA_VERDICT_CODE) == NF_DROP;
    ElementImage image;
    const auto key = Attributes(attributes[NFTA_SET_ELEM_KEY]).bytes(NFTA_DATA_VALUE);
    image.element.key.assign(key.begin(), key.end());
    image.element.verdict = drops ? packet::Verdict::drop : packet::Verdict::accept;
    image.tag = tag_of(attributes.bytes(NFTA_SET_ELEM_USERDATA));
    const Attributes expression(attributes[NFTA_SET_ELEM_EXPR]);
    const Attributes counter(expression[NFTA_EXPR_DATA]);
    image.counters = {counter.number64(NFTA_COUNTER_PACKETS), counter.number64(NFTA_COUNTER_BYTES)};
    return image;
}

void take_elements(const nlmsghdr &answer, std::vector<ElementImage> &elements)
{
    for_each(Attributes(answer, nfgen_size)[NFTA_SET_ELEM_LIST_ELEMENTS],
             [&elements](const nlattr *nest) { elements.push_back(element_of(nest)); });
}

} // namespace

void put_user_data(nlmsghdr *rule, const Tag &tag)
{
    const std::string bytes = user_data_of(tag);
    mnl_attr_put(rule, NFTA_RULE_USERDATA, bytes.size(), bytes.data());
}

void put_counted_drop(nlmsghdr *rule)
{
    const Nest expressions(rule, NFTA_RULE_EXPRESSIONS);
    {
        const Expression counter(rule, "counter");
    }
    put_drop(rule);
}

// ---- adding ---------------------------------------------------------------------------------------------------------

void KernelTable::create(Batch &batch, bool owned) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE, everybody);
    put_text(message, NFTA_TABLE_NAME, name_);
    put32(message, NFTA_TABLE_FLAGS, owned ? NFT_TABLE_F_OWNER | persist : 0);
}

void KernelTable::add_chain(Batch &batch, const std::string &chain, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE, owner);
    put_text(message, NFTA_CHAIN_TABLE, name_);
    put_text(message, NFTA_CHAIN_NAME, chain);
}

void KernelTable::add_chain(Batch &batch, const std::string &chain, const Hook &hook, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE, owner);
    put_text(message, NFTA_CHAIN_TABLE, name_);
    put_text(message, NFTA_CHAIN_NAME, chain);
    put_text(message, NFTA_CHAIN_TYPE, "filter");
    put32(message, NFTA_CHAIN_POLICY, policy_accept);
    const Nest nest(message, NFTA_CHAIN_HOOK);
    put32(message, NFTA_HOOK_HOOKNUM, hook.out ? NF_NETDEV_EGRESS : NF_NETDEV_INGRESS);
    put32(message, NFTA_HOOK_PRIORITY, static_cast<uint32_t>(hook.priority));
    put_text(message, NFTA_HOOK_DEV, hook.interface);
}

void KernelTable::remove_chain(Batch &batch, const std::string &chain, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_DELRULE, 0, owner);
    put_text(message, NFTA_RULE_TABLE, name_);
    put_text(message, NFTA_RULE_CHAIN, chain);
    message = batch.add(NFT_MSG_DELCHAIN, 0, owner);
    put_text(message, NFTA_CHAIN_TABLE, name_);
    put_text(message, NFTA_CHAIN_NAME, chain);
}

void KernelTable::remove_rule(Batch &batch, const std::string &chain, uint64_t handle, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_DELRULE, 0, owner);
    put_text(message, NFTA_RULE_TABLE, name_);
    put_text(message, NFTA_RULE_CHAIN, chain);
    put64(message, NFTA_RULE_HANDLE, handle);
}

nlmsghdr *KernelTable::add_rule(Batch &batch, const std::string &chain, Place place, bool echo, size_t owner) const
{
    uint16_t flags = NLM_F_CREATE;
    if (place.where == Place::end)
        flags |= NLM_F_APPEND;
    if (place.where == Place::instead)
        flags = NLM_F_REPLACE;
    if (echo)
        flags |= NLM_F_ECHO;
    nlmsghdr *message = batch.add(NFT_MSG_NEWRULE, flags, owner);
    put_text(message, NFTA_RULE_TABLE, name_);
    put_text(message, NFTA_RULE_CHAIN, chain);
    if (place.where == Place::before)
        put64(message, NFTA_RULE_POSITION, place.handle);
    if (place.where == Place::instead)
        put64(message, NFTA_RULE_HANDLE, place.handle);
    return message;
}

void KernelTable::add_image(Batch &batch, const std::string &chain, Place place, const RuleImage &image, size_t owner,
                            bool echo) const
{
    nlmsghdr *message = add_rule(batch, chain, place, echo, owner);
    mnl_attr_put(message, NFTA_RULE_EXPRESSIONS | NLA_F_NESTED, image.expressions.size(), image.expressions.data());
    mnl_attr_put(message, NFTA_RULE_USERDATA, image.user_data.size(), image.user_data.data());
}

void KernelTable::add_set(Batch &batch, const packet::ConstantSet &set) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWSET, NLM_F_CREATE, everybody);
    put_text(message, NFTA_SET_TABLE, name_);
    put_text(message, NFTA_SET_NAME, set.name);
    put32(message, NFTA_SET_ID, 1); // names the set within the batch, where its name is not yet known
    put32(message, NFTA_SET_KEY_TYPE, set.size == 2 ? shown_as_ethertype : shown_as_protocol);
    put32(message, NFTA_SET_KEY_LEN, set.size);
    message = batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE, everybody);
    put_text(message, NFTA_SET_ELEM_LIST_TABLE, name_);
    put_text(message, NFTA_SET_ELEM_LIST_SET, set.name);
    const Nest elements(message, NFTA_SET_ELEM_LIST_ELEMENTS);
    for (const uint32_t value : set.values) {
        const packet::Bytes bytes(value, set.size);
        const Nest element(message, NFTA_LIST_ELEM);
        const Nest key(message, NFTA_SET_ELEM_KEY);
        mnl_attr_put(message, NFTA_DATA_VALUE, bytes.size, bytes.data.data());
    }
}

// What is over the rate passes its test.
void KernelTable::add_meter(Batch &batch, uint32_t meter, const packet::Rate &rate) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWOBJ, NLM_F_CREATE, everybody);
    put_text(message, NFTA_OBJ_TABLE, name_);
    put_text(message, NFTA_OBJ_NAME, packet::meter_name(meter, rate));
    put32(message, NFTA_OBJ_TYPE, NFT_OBJECT_LIMIT);
    const Nest data(message, NFTA_OBJ_DATA);
    put64(message, NFTA_LIMIT_RATE, rate.per_second);
    put64(message, NFTA_LIMIT_UNIT, 1);
    put32(message, NFTA_LIMIT_BURST, rate.burst);
    put32(message, NFTA_LIMIT_TYPE, rate.bytes ? NFT_LIMIT_PKT_BYTES : NFT_LIMIT_PKTS);
    put32(message, NFTA_LIMIT_FLAGS, NFT_LIMIT_F_INV);
}

void KernelTable::remove_meter(Batch &batch, const std::string &meter) const
{
    nlmsghdr *message = batch.add(NFT_MSG_DELOBJ, 0, everybody);
    put_text(message, NFTA_OBJ_TABLE, name_);
    put_text(message, NFTA_OBJ_NAME, meter);
    put32(message, NFTA_OBJ_TYPE, NFT_OBJECT_LIMIT);
}

void KernelTable::add_counter(Batch &batch, const std::string &counter, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWOBJ, NLM_F_CREATE, owner);
    put_text(message, NFTA_OBJ_TABLE, name_);
    put_text(message, NFTA_OBJ_NAME, counter);
    put32(message, NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    const Nest data(message, NFTA_OBJ_DATA);
}

void KernelTable::add_map(Batch &batch, const std::string &map, std::span<const packet::Source> fields,
                          std::string_view user_data, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_NEWSET, NLM_F_CREATE, owner);
    uint32_t type = 0;
    size_t size = 0;
    for (const packet::Source &field : fields) {
        type = type << bits_of_type | shown_as(field);
        size += packet::padded(field);
    }
    put_text(message, NFTA_SET_TABLE, name_);
    put_text(message, NFTA_SET_NAME, map);
    put32(message, NFTA_SET_ID, 1);
    put32(message, NFTA_SET_FLAGS, NFT_SET_MAP | NFT_SET_EXPR);
    put32(message, NFTA_SET_KEY_TYPE, type);
    put32(message, NFTA_SET_KEY_LEN, static_cast<uint32_t>(size));
    put32(message, NFTA_SET_DATA_TYPE, NFT_DATA_VERDICT);
    mnl_attr_put(message, NFTA_SET_USERDATA, user_data.size(), user_data.data());
    const Nest counter(message, NFTA_SET_EXPR);
    put_text(message, NFTA_EXPR_NAME, "counter");
    const Nest data(message, NFTA_EXPR_DATA);
}

void KernelTable::add_element(Batch &batch, const std::string &map, const packet::Element &element,
                              const Counters &start, const Tag &tag, size_t owner) const
{
    nlmsghdr *message = begin_elements(batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE, owner), map);
    const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS), item(message, NFTA_LIST_ELEM);
    put_key(message, element);
    {
        const Nest data(message, NFTA_SET_ELEM_DATA), verdict(message, NFTA_DATA_VERDICT);
        put32(message, NFTA_VERDICT_CODE, element.verdict == packet::Verdict::accept ? NF_ACCEPT : NF_DROP);
    }
    {
        const Nest counter(message, NFTA_SET_ELEM_EXPR);
        put_text(message, NFTA_EXPR_NAME, "counter");
        const Nest data(message, NFTA_EXPR_DATA);
        put64(message, NFTA_COUNTER_BYTES, start.bytes);
        put64(message, NFTA_COUNTER_PACKETS, start.packets);
    }
    const std::string bytes = user_data_of(tag);
    mnl_attr_put(message, NFTA_SET_ELEM_USERDATA, bytes.size(), bytes.data());
}

void KernelTable::remove_element(Batch &batch, const std::string &map, const packet::Element &element,
                                 size_t owner) const
{
    nlmsghdr *message = begin_elements(batch.add(NFT_MSG_DELSETELEM, 0, owner), map);
    const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS), item(message, NFTA_LIST_ELEM);
    put_key(message, element);
}

void KernelTable::remove_map(Batch &batch, const std::string &map, size_t owner) const
{
    nlmsghdr *message = batch.add(NFT_MSG_DELSET, 0, owner);
    put_text(message, NFTA_SET_TABLE, name_);
    put_text(message, NFTA_SET_NAME, map);
}

nlmsghdr *KernelTable::begin_elements(nlmsghdr *message, const std::string &map) const
{
    put_text(message, NFTA_SET_ELEM_LIST_TABLE, name_);
    put_text(message, NFTA_SET_ELEM_LIST_SET, map);
    return message;
}

// ---- reading --------------------------------------------------------------------------------------------------------

int KernelTable::read_chains(Netlink &netlink, std::vector<ChainImage> &chains) const
{
    std::vector<uint8_t> request;
    begin_request(request, NFT_MSG_GETCHAIN, NLM_F_DUMP);
    return netlink.ask(request, [&](const nlmsghdr &message) {
        const Attributes chain(message, nfgen_size);
        if (chain.text(NFTA_CHAIN_TABLE) != name_)
            return;
        const Attributes hook(chain[NFTA_CHAIN_HOOK]);
        std::string device(hook.text(NFTA_HOOK_DEV));
        for_each(hook[NFTA_HOOK_DEVS], [&](const nlattr *name) {
            device.assign(mnl_attr_get_str(name), strnlen(mnl_attr_get_str(name), mnl_attr_get_payload_len(name)));
        });
        chains.push_back({std::string(chain.text(NFTA_CHAIN_NAME)), std::move(device)});
    });
}

int KernelTable::read_rules(Netlink &netlink, const std::string &chain, std::vector<RuleImage> &rules) const
{
    std::vector<uint8_t> request;
    nlmsghdr *message = begin_request(request, NFT_MSG_GETRULE, NLM_F_DUMP);
    put_text(message, NFTA_RULE_TABLE, name_);
    put_text(message, NFTA_RULE_CHAIN, chain);
    return netlink.ask(request, [&](const nlmsghdr &answer) {
        const Attributes rule(answer, nfgen_size);
        if (rule.text(NFTA_RULE_TABLE) != name_ || rule.text(NFTA_RULE_CHAIN) != chain)
            return;
        RuleImage &image = rules.emplace_back();
        image.handle = rule.number64(NFTA_RULE_HANDLE);
        image.tag = tag_of(rule.bytes(NFTA_RULE_USERDATA));
        image.counters = counters_in(rule[NFTA_RULE_EXPRESSIONS]);
        copy(rule.bytes(NFTA_RULE_EXPRESSIONS), image.expressions);
        copy(rule.bytes(NFTA_RULE_USERDATA), image.user_data);
    });
}

uint32_t KernelTable::read_owner(Netlink &netlink) const
{
    uint32_t owner = 0;
    std::vector<uint8_t> request;
    begin_request(request, NFT_MSG_GETTABLE, NLM_F_DUMP);
    netlink.ask(request, [&](const nlmsghdr &answer) {
        const Attributes table(answer, nfgen_size);
        if (table.text(NFTA_TABLE_NAME) == name_)
            owner = table.number32(NFTA_TABLE_OWNER);
    });
    return owner;
}

int KernelTable::read_maps(Netlink &netlink, std::vector<MapImage> &maps) const
{
    std::vector<uint8_t> request;
    put_text(begin_request(request, NFT_MSG_GETSET, NLM_F_DUMP), NFTA_SET_TABLE, name_);
    return netlink.ask(request, [&](const nlmsghdr &answer) {
        const Attributes set(answer, nfgen_size);
        if (set.text(NFTA_SET_TABLE) != name_)
            return;
        MapImage &map = maps.emplace_back(MapImage{std::string(set.text(NFTA_SET_NAME)), {}});
        copy(set.bytes(NFTA_SET_USERDATA), map.user_data);
    });
}

int KernelTable::read_elements(Netlink &netlink, const std::string &map, std::vector<ElementImage> &elements) const
{
    std::vector<uint8_t> request;
    begin_elements(begin_request(request, NFT_MSG_GETSETELEM, NLM_F_DUMP), map);
    return netlink.ask(request, [&](const nlmsghdr &answer) { take_elements(answer, elements); });
}

static void put_keys(nlmsghdr *message, std::span<const packet::Element> elements)
{
    const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
    for (const packet::Element &element : elements) {
        const Nest item(message, NFTA_LIST_ELEM);
        put_key(message, element);
    }
}

int KernelTable::read_elements(Netlink &netlink, const std::string &map, std::span<const packet::Element> some,
                               std::vector<ElementImage> &elements) const
{
    for (int error = 0; !some.empty(); some = some.subspan(std::min(some.size(), elements_per_question))) {
        std::vector<uint8_t> request;
        put_keys(begin_elements(begin_request(request, NFT_MSG_GETSETELEM, 0, Batch::message_room * 6), map),
                 some.first(std::min(some.size(), elements_per_question)));
        error = netlink.ask(request, [&](const nlmsghdr &answer) { take_elements(answer, elements); });
        if (error != 0)
            return error;
    }
    return 0;
}

// Names of tables, sets or objects.
int KernelTable::read_names(Netlink &netlink, uint16_t request_type, uint16_t attribute,
                            std::set<std::string> &names) const
{
    std::vector<uint8_t> request;
    nlmsghdr *message = begin_request(request, request_type, NLM_F_DUMP);
    if (request_type != NFT_MSG_GETTABLE)
        put_text(message, NFTA_SET_TABLE, name_);
    return netlink.ask(request, [&](const nlmsghdr &answer) {
        const Attributes found(answer, nfgen_size);
        if (request_type == NFT_MSG_GETTABLE || found.text(NFTA_SET_TABLE) == name_)
            names.emplace(found.text(attribute));
    });
}

} // namespace plx::plane::nftables
