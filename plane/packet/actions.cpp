// See actions.hpp.
#include "plane/packet/actions.hpp"

#include <algorithm>

namespace plx::plane::packet {

namespace {

// `write` rows: the bits that are set, in words of two bytes, so that a checksum over words can be mended; and a field
// that is there only when all is that is read and written. It is a field that nft(8) knows, for it fails on others.
struct Row {
    fp_udp_attr_class cls;
    std::string_view name;
    Deed deed;
    Guard guard = Guard::none;
    Source at{};
    uint16_t mask = 0;
    uint8_t shift = 0;
    Source proof{};
};
constexpr auto action = FP_UDP_ATTR_ACTION;
constexpr auto ctrl = FP_UDP_ATTR_CTRL;
constexpr Source tag{Load::link, 2, 14}, first_word{Load::network, 2, 0}, label_end{Load::network, 2, 2};
constexpr Source ipv4_checksum{Load::network, 2, 10}, ipv6_hop_limit{Load::network, 1, 7};
constexpr Row rows[] = {
    {action, "fwd", Deed::fwd},
    {action, "mirror", Deed::mirror},
    {action, "redirect", Deed::redirect},
    {action, "meter", Deed::meter},
    {action, "counter", Deed::counter},
    {action, "prio_in", Deed::priority},
    {action, "mirror_id", Deed::session},
    {action, "trap_id", Deed::trap},
    {action, "snoop_id", Deed::snoop},
    {action, "stat_sampling", Deed::sampling},
    {action, "cos", Deed::write, Guard::tagged, tag, 0xe000, 13, tag},
    {action, "vid", Deed::write, Guard::tagged, tag, 0x0fff, 0, tag},
    {action, "ipv4_tos", Deed::write, Guard::ipv4, first_word, 0x00ff, 0, ipv4_checksum},
    {action, "ipv4_prec", Deed::write, Guard::ipv4, first_word, 0x00e0, 5, ipv4_checksum},
    {action, "ipv4_dscp", Deed::write, Guard::ipv4, first_word, 0x00fc, 2, ipv4_checksum},
    {action, "ipv6_tc", Deed::write, Guard::ipv6, first_word, 0x0ff0, 4, ipv6_hop_limit},
    {action, "mpls_exp", Deed::write, Guard::mpls, label_end, 0x0e00, 9, label_end},
    {ctrl, "no_default", Deed::no_default},
    {ctrl, "permit2deny", Deed::permit2deny},
    {ctrl, "no_deny", Deed::no_deny},
    {ctrl, "no_permit", Deed::no_permit},
};

const Row *row_of(const Form &form)
{
    static const std::vector<const Row *> by_form = [] {
        std::vector<const Row *> all(forms().size());
        for (const Row &row : rows)
            all[static_cast<size_t>(find_form(row.cls, row.name) - forms().data())] = &row;
        return all;
    }();
    return by_form[static_cast<size_t>(&form - forms().data())];
}

uint16_t word(const Bytes &bytes)
{
    return static_cast<uint16_t>(bytes.data[0] << 8U | bytes.data[1]);
}

bool bits_differ(const Write &one, const Write &other)
{
    return ((word(one.value) ^ word(other.value)) & word(one.mask) & word(other.mask)) != 0;
}

void merge(Write &write, const Write &more)
{
    write.mask = Bytes(word(write.mask) | word(more.mask), 2);
    write.value = Bytes(word(write.value) | word(more.value), 2);
}

// The fields that a write is made in, one by one: nft(8) ends on a write of two that it knows. They are words at the
// place of the write, but for those of one byte.
struct Piece {
    Guard kind;
    uint16_t mask;
    Source byte{};
};
constexpr Piece pieces[] = {{Guard::tagged, 0xe000}, {Guard::tagged, 0x0fff},
                            {Guard::ipv4, 0x00fc},   {Guard::ipv4, 0x0003},
                            {Guard::ipv6, 0x0fc0},   {Guard::ipv6, 0x0030, {Load::network, 1, 1}},
                            {Guard::mpls, 0x0e00}};

void append_write(Guard kind, const Write &write, std::vector<Action> &actions)
{
    for (const Piece &piece : pieces) {
        const uint16_t mask = word(write.mask) & piece.mask;
        const uint16_t value = word(write.value) & mask;
        if (piece.kind != kind || mask == 0)
            continue;
        const Source at = piece.byte.size == 0 ? write.at : piece.byte;
        actions.emplace_back(Write{at, Bytes(mask, at.size), Bytes(value, at.size), write.ipv4_checksum});
    }
}

// That the bytes are there, unless another test reads behind them.
void seek_presence(const Source &source, const Form *by, std::vector<Sought> &sought)
{
    const bool there = std::any_of(sought.begin(), sought.end(), [&source](const Sought &other) {
        const Source &read = other.test.source;
        return read.load == source.load && read.offset + read.size >= source.offset + source.size;
    });
    if (!there)
        sought.push_back({presence(source), by});
}

} // namespace

Refusal refuse(Status status, const Form &form, const std::string &why)
{
    return {status, std::string(form.name) + ": " + why};
}

Refusal exclude_each_other(const Form &one, const Form &other)
{
    if (&one == &other)
        return refuse(Status::contradiction, one, "excludes itself");
    return {Status::contradiction, std::string(one.name) + " and " + std::string(other.name) + " exclude each other"};
}

bool Deeds::knows(const Form &form, const Config &config)
{
    const Row *row = row_of(form);
    return row != nullptr && (row->deed != Deed::sampling || config.sample_group.has_value());
}

Refusal Deeds::take(const Form &form, uint64_t value)
{
    const Deed deed = row_of(form)->deed;
    if (deed == Deed::write)
        return take_write(form, value);
    std::optional<Taken> &taken = taken_[static_cast<size_t>(deed)];
    if (taken)
        return taken->value == value ? Refusal() : exclude_each_other(form, form);
    taken = {&form, value};
    return take_deed(deed, form, value);
}

Refusal Deeds::take_deed(Deed deed, const Form &form, uint64_t value)
{
    const auto number = static_cast<uint32_t>(value);
    if (deed == Deed::redirect)
        return take_port(form, number, redirect_);
    if (deed == Deed::mirror) {
        Copy copy;
        Refusal refusal = take_port(form, number, copy.interface);
        actions_.emplace_back(std::move(copy));
        return refusal;
    }
    if (deed == Deed::session) {
        const auto session = config_.mirrors.find(number);
        if (session == config_.mirrors.end())
            return refuse(Status::out_of_range, form, "no mirror session " + std::to_string(value));
        actions_.emplace_back(Copy{session->second});
    }
    if (deed == Deed::trap || deed == Deed::snoop) {
        if (value > UINT16_MAX)
            return refuse(Status::out_of_range, form, "no log group " + std::to_string(value));
        actions_.emplace_back(Log{static_cast<uint16_t>(value)});
    }
    if (deed == Deed::meter && !config_.meters.contains(number))
        return refuse(Status::out_of_range, form, "no meter " + std::to_string(value));
    if (deed == Deed::sampling && value == 0)
        return refuse(Status::out_of_range, form, "one packet in none");
    if (deed == Deed::priority)
        actions_.emplace_back(SetPriority{number});
    return {};
}

Refusal Deeds::take_port(const Form &form, uint32_t port, std::string &interface) const
{
    const auto found = config_.ports.find(port);
    if (found == config_.ports.end())
        return refuse(Status::out_of_range, form, "port " + std::to_string(port) + " is not this node's");
    interface = found->second;
    return {};
}

Refusal Deeds::take_write(const Form &form, uint64_t value)
{
    const Row &row = *row_of(form);
    const Write write{row.at, Bytes(row.mask, 2), Bytes(value << row.shift, 2), row.guard == Guard::ipv4};
    const auto [change, added] = changes_.try_emplace(row.guard, Change{write, row.proof, &form});
    if (added)
        return {};
    if (bits_differ(change->second.write, write))
        return exclude_each_other(*change->second.by, form);
    merge(change->second.write, write);
    return {};
}

const Form *Deeds::dropping() const
{
    if (!permits())
        return taken(Deed::fwd)->by;
    if (asks(Deed::permit2deny))
        return taken(Deed::permit2deny)->by;
    return taken(Deed::trap) ? taken(Deed::trap)->by : nullptr;
}

Refusal Deeds::check() const
{
    if (redirect_.empty() || dropping() == nullptr)
        return {};
    return exclude_each_other(*dropping(), *taken(Deed::redirect)->by);
}

Rule Deeds::final_rule() const
{
    Rule rule;
    rule.verdict = dropping() != nullptr ? Verdict::drop : redirect_.empty() ? Verdict::accept : Verdict::redirect;
    rule.interface = redirect_;
    if (taken(Deed::counter))
        rule.actions.emplace_back(CountOn{number(Deed::counter)});
    rule.actions.insert(rule.actions.end(), actions_.begin(), actions_.end());
    return rule;
}

// The kinds of frames that are written to, the most particular first: in two ways, in one, not at all.
std::vector<Deeds::Kinds> Deeds::kinds() const
{
    std::vector<Kinds> all;
    for (const auto &[kind, change] : changes_) {
        if (kind != Guard::tagged)
            all.push_back({kind});
    }
    all.emplace_back();
    if (!changes_.contains(Guard::tagged))
        return all;
    std::vector<Kinds> with_tag = all;
    for (Kinds &kinds : with_tag)
        kinds.push_back(Guard::tagged);
    with_tag.insert(with_tag.end(), all.begin(), all.end());
    return with_tag;
}

void Deeds::append(const std::vector<Sought> &tests, const std::vector<Test> &settled, std::vector<Rule> &rules)
{
    if (taken(Deed::sampling)) {
        Rule &rule = rules.emplace_back();
        rule.tests = settled;
        rule.one_in = number(Deed::sampling);
        rule.counted = false;
        rule.actions.emplace_back(Log{*config_.sample_group});
    }
    if (taken(Deed::meter)) {
        Rule &rule = rules.emplace_back();
        rule.tests = settled;
        rule.over_meter = meter_name(number(Deed::meter), config_.meters.at(number(Deed::meter)));
        rule.verdict = Verdict::drop;
    }
    for (const Kinds &each : kinds()) {
        if (append_variant(each, tests, settled, rules))
            return;
    }
}

// True when every frame of the alternative is of these kinds: the others need no rule.
bool Deeds::append_variant(const Kinds &kinds, const std::vector<Sought> &tests, const std::vector<Test> &settled,
                           std::vector<Rule> &rules)
{
    Rule rule = final_rule();
    if (kinds.empty()) {
        rule.tests = settled;
        rules.push_back(std::move(rule));
        return true;
    }
    std::vector<Sought> sought = tests;
    for (const Guard kind : kinds) {
        const Change &change = changes_.at(kind);
        std::vector<Test> guard;
        add_guard(kind, guard);
        for (const Test &test : guard)
            sought.push_back({test, change.by});
        seek_presence(change.proof, change.by, sought);
        append_write(kind, change.write, rule.actions);
    }
    Settled variant = settle(std::move(sought));
    if (!variant.possible())
        return false;
    for (const Guard kind : kinds)
        changes_.at(kind).used = true;
    rule.tests = std::move(variant.tests);
    rules.push_back(std::move(rule));
    return rules.back().tests == settled;
}

Refusal Deeds::check_writes() const
{
    for (const auto &[kind, change] : changes_) {
        if (!change.used)
            return refuse(Status::contradiction, *change.by, "no packet that matches has it");
    }
    return {};
}

} // namespace plx::plane::packet
