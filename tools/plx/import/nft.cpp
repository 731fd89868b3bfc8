// Rules as `nft -j list ruleset` writes them. Jumps to chains are written out in their places.
#include "import/chains.hpp"

#include "import/prefixes.hpp"
#include "records/attribute.hpp"
#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>

namespace plx::tool::import {

namespace {

using nlohmann::json;

constexpr size_t most_bytes = 256U << 20U; // of a file
constexpr int deepest_text = 64;           // of its brackets

struct NftRule {
    int number; // in the file
    json text;
};

struct NftChain {
    std::string policy = "accept";
    bool base = false;
    std::vector<NftRule> rules{};
};

const json &flags_of()
{
    static const json payload = {{"payload", {{"protocol", "tcp"}, {"field", "flags"}}}};
    return payload;
}

// Throws Unsaid where nlohmann's own exceptions would end the program.
std::string text_at(const json &object, const char *name)
{
    if (!object.is_object() || !object.contains(name) || !object[name].is_string())
        throw Unsaid(std::string("it has no ") + name);
    return object[name].get<std::string>();
}

std::string scalar(const json &value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_number_unsigned())
        return std::to_string(value.get<uint64_t>());
    throw Unsaid("the value " + value.dump().substr(0, 60) + " cannot be said");
}

class NftReader : Chains<NftRule> {
  public:
    NftReader(const Options &options, Draft &draft) : Chains(draft), options_(options), draft_(draft) {}

    void read(std::istream &in)
    {
        std::string text;
        for (std::array<char, 65536> piece{}; in && text.size() < most_bytes;) {
            in.read(piece.data(), piece.size());
            text.append(piece.data(), static_cast<size_t>(in.gcount()));
        }
        const auto shallow = [](int depth, json::parse_event_t, const json &) {
            if (depth > deepest_text)
                throw Unsaid("it is nested too deeply");
            return true;
        };
        const json whole = json::parse(text, shallow, false);
        if (!whole.is_object() || !whole.contains("nftables") || !whole["nftables"].is_array())
            throw Unsaid("this is not the output of 'nft -j list ruleset'");
        int number = 0;
        for (const json &object : whole["nftables"])
            take(++number, object);
        first_ = first_chain();
        walk(chains_[first_].rules, Matches());
        if (!permits_rest())
            decide(Matches());
    }

  private:
    static std::string key(const json &object, const char *name)
    {
        return text_at(object, "family") + ' ' + text_at(object, "table") + ' ' + text_at(object, name);
    }

    void take(int number, const json &object)
    try {
        if (object.contains("chain")) {
            NftChain &chain = chains_[key(object["chain"], "name")];
            chain.base = object["chain"].contains("hook");
            if (object["chain"].contains("policy"))
                chain.policy = text_at(object["chain"], "policy");
        } else if (object.contains("rule")) {
            chains_[key(object["rule"], "chain")].rules.push_back({number, object["rule"]});
        } else if (object.contains("set") || object.contains("map")) {
            const json &set = object.contains("set") ? object["set"] : object["map"];
            sets_[key(set, "name")] = set;
        } else if (!object.contains("metainfo") && !object.contains("table") && !object.contains("counter")) {
            throw Unsaid("it cannot be said");
        }
    } catch (const Unsaid &why) {
        draft_.refuse(number, object.dump().substr(0, 200), why.what(), std::nullopt);
    }

    std::string first_chain() const
    {
        std::vector<std::string> found;
        for (const auto &[name, chain] : chains_) {
            const bool named = name.ends_with(' ' + options_.chain) && !options_.chain.empty();
            if (named || (options_.chain.empty() && chain.base && !chain.rules.empty()))
                found.push_back(name);
        }
        if (found.size() != 1)
            throw Unsaid(found.empty() ? "there is no such chain with rules"
                                       : "there are rules of several chains: name "
                                         "one with --chain");
        return found[0];
    }

    bool permits_rest() { return chains_[first_].policy != "drop"; }

    void decide(const Matches &frames) override
    {
        table_ = first_.substr(0, first_.rfind(' ') + 1);
        draft_.add(family(frames), permits_rest(), "policy");
    }

    void refuse(const NftRule &rule, const std::string &why) override
    {
        const json parts = rule.text.value("expr", json::array());
        draft_.refuse(rule.number, parts.dump().substr(0, 200), why, verdict_of(parts));
    }

    static std::optional<bool> verdict_of(const json &parts)
    {
        for (const json &part : parts) {
            if (part.is_object() && part.contains("accept"))
                return true;
            if (part.is_object() && (part.contains("drop") || part.contains("reject")))
                return false;
        }
        return std::nullopt;
    }

    bool apply(const NftRule &rule, Matches &outer) override
    try {
        table_ = text_at(rule.text, "family") + ' ' + text_at(rule.text, "table") + ' ';
        Matches matches = outer;
        const std::string name = rule.text.contains("comment") ? text_at(rule.text, "comment") : "";
        bool conditional = false;
        bool established = false;
        for (const json &part : rule.text.value("expr", json::array())) {
            if (!part.is_object() || part.size() != 1)
                throw Unsaid("it has a part that cannot be said");
            const std::string kind = part.begin().key();
            const json &what = part.begin().value();
            if (kind == "match") {
                conditional = true;
                established = narrow(what, matches) || established;
            } else if (kind == "accept" || kind == "drop" || kind == "reject") {
                if (kind == "reject")
                    draft_.note("'reject' is a denial: the sender is not told");
                add(matches, established, kind == "accept", name);
            } else if (kind == "jump" || kind == "goto") {
                untracked(established);
                return go(text_at(what, "target"), matches, kind == "goto", !conditional);
            } else if (kind == "vmap") {
                untracked(established);
                map(what, matches);
            } else if (kind == "return") {
                untracked(established);
                if (conditional)
                    leave(matches);
                return conditional;
            } else if (kind == "log") {
                draft_.note("'log' is left out: what is let through stays the same");
            } else if (kind != "counter" && kind != "comment") {
                throw Unsaid("'" + kind + "' cannot be said of a single frame on a switch");
            }
        }
        return true;
    } catch (const json::exception &) {
        throw Unsaid("it is not as nft(8) writes it");
    }

    static void untracked(bool established)
    {
        if (established)
            throw Unsaid("a switch does not track connections");
    }

    void add(const Matches &matches, bool established, bool permits, const std::string &name)
    {
        if (!established)
            return draft_.add(family(matches), permits, name);
        if (!options_.tcp_flags)
            throw Unsaid("a switch does not track connections; --established-as tcp-flags takes TCP's flags for it");
        for (const bool ipv6 : {false, true}) {
            if (!table_.starts_with(ipv6 ? "ip " : "ip6 ") && !matches.has(ipv6 ? "ipv4_" : "ipv6_"))
                for (const Matches &each : import::established(matches, ipv6))
                    draft_.add(each, permits, name.empty() ? "established" : name);
        }
        draft_.note("established connections: of TCP alone, by its flags ACK and RST, which anybody can set");
    }

    // Whose frames: those of the table's family.
    Matches family(Matches matches) const
    {
        const bool ipv4 = table_.starts_with("ip "), ipv6 = table_.starts_with("ip6 ");
        if (matches.has("ipv4_") || matches.has("ipv6_") || matches.has("etype"))
            return matches;
        if (ipv4 || ipv6)
            matches.narrow("etype", {ipv4 ? "ipv4" : "ipv6"});
        else if (table_.starts_with("inet "))
            matches.narrow("etype", {"ipv4", "ipv6"});
        return matches;
    }

    void narrow_protocol(const std::vector<std::string> &protocols, Matches &matches) const
    {
        Matches either;
        if (!table_.starts_with("ip6 "))
            either.narrow("ipv4_proto", protocols);
        Matches ipv6;
        ipv6.narrow("ipv6_next_hdr", protocols);
        if (table_.starts_with("ip6 "))
            either = ipv6;
        else if (!table_.starts_with("ip "))
            either.widen(ipv6);
        matches.narrow(either);
    }

    // A field of a protocol's header is of that protocol.
    void narrow_to_header(const json &left, Matches &matches) const
    {
        if (!left.is_object() || !left.contains("payload"))
            return;
        const std::string header = text_at(left["payload"], "protocol");
        if (header == "icmp")
            matches.narrow("ipv4_proto", {"icmp"});
        else if (header == "icmpv6")
            matches.narrow("ipv6_next_hdr", {"icmpv6"});
        else if ((header == "tcp" || header == "udp" || header == "sctp") && !matches.has("ipv4_proto") &&
                 !matches.has("ipv6_next_hdr"))
            narrow_protocol({header}, matches);
    }

    bool go(const std::string &target, const Matches &matches, bool for_good, bool all)
    {
        const auto chain = chains_.find(table_ + target);
        if (chain == chains_.end())
            throw Unsaid("there is no chain " + target);
        return jump(chain->second.rules, matches, for_good, all);
    }

    void map(const json &map, const Matches &outer)
    {
        if (!map.contains("key") || !map.contains("data"))
            throw Unsaid("its map cannot be said");
        for (const json &element : elements(map["data"])) {
            if (!element.is_array() || element.size() != 2 || !element[1].is_object() || element[1].size() != 1)
                throw Unsaid("its map cannot be said");
            Matches matches = outer;
            const bool established = narrow({{"op", "=="}, {"left", map["key"]}, {"right", element[0]}}, matches);
            const std::string verdict = element[1].begin().key();
            if (verdict == "accept" || verdict == "drop") {
                add(matches, established, verdict == "accept", "");
                continue;
            }
            untracked(established);
            if (verdict == "jump" || verdict == "goto")
                go(text_at(element[1][verdict], "target"), matches, verdict == "goto", false);
            else if (verdict == "return")
                leave(matches);
            else
                throw Unsaid("its map cannot be said");
        }
    }

    // The elements of a set, or the one value.
    std::vector<json> elements(const json &right) const
    {
        const json *found = &right;
        if (right.is_string() && right.get<std::string>().starts_with('@')) {
            const auto set = sets_.find(table_ + right.get<std::string>().substr(1));
            if (set == sets_.end() || set->second.contains("flags")) {
                const json flags = set == sets_.end() ? json() : set->second["flags"];
                if (set == sets_.end() || flags.dump().find("dynamic") != std::string::npos ||
                    flags.dump().find("timeout") != std::string::npos)
                    throw Unsaid("the set " + right.get<std::string>() + " is not fixed");
            }
            if (!set->second.contains("elem"))
                return {};
            found = &set->second["elem"];
        } else if (right.is_object() && right.contains("set")) {
            found = &right["set"];
        }
        return found->is_array() ? found->get<std::vector<json>>() : std::vector<json>{*found};
    }

    // Whether it is about an established connection.
    bool narrow(const json &match, Matches &matches) const
    {
        if (!match.contains("left") || !match.contains("right"))
            throw Unsaid("its match cannot be said");
        const std::string op = text_at(match, "op");
        const json &left = match["left"];
        if (left.is_object() && left.contains("ct"))
            return is_established(left["ct"], match["right"]);
        if (const std::optional<uint64_t> mask = masked_flags(left)) {
            narrow_to_header(flags_of(), matches);
            matches.narrow("tcp_flag", flag_values(op, *mask, match["right"]));
            return false;
        }
        const std::string field = field_of(left);
        std::vector<std::string> values;
        for (const json &element : elements(match["right"]))
            append(field, element, values);
        if (op != "==" && op != "!=" && !(op == "in" && values.size() != 1))
            throw Unsaid("the comparison " + op + " cannot be said");
        narrow_to_header(left, matches);
        if (op == "!=")
            negate(field, values);
        if (field == "l4proto")
            return narrow_protocol(values, matches), false;
        if (field.ends_with("_l4port"))
            return narrow_some_ports(field.substr(0, 3), values, matches);
        matches.narrow(field, values);
        return false;
    }

    // Of TCP's flags, those that a match looks at.
    static std::optional<uint64_t> masked_flags(const json &left)
    {
        if (left == flags_of())
            return 0xff;
        const json *parts = left.is_object() && left.contains("&") ? &left["&"] : nullptr;
        if (parts == nullptr || !parts->is_array() || parts->size() != 2 || (*parts)[0] != flags_of())
            return std::nullopt;
        return flags((*parts)[1]);
    }

    static uint64_t flags(const json &value)
    {
        if (value.is_number_unsigned() && value.get<uint64_t>() <= UINT8_MAX)
            return value.get<uint64_t>();
        uint64_t all = 0;
        if (value.is_object() && value.contains("|"))
            return flags(value["|"]);
        if (value.is_array())
            for (const json &one : value)
                all |= flags(one);
        else
            all = flag(scalar(value));
        return all;
    }

    static uint64_t flag(const std::string &name)
    {
        for (const NamedValue &named : named_values(NameSet::tcp_flags))
            if (named.name == name || (name == "ecn" && named.name == "ece"))
                return named.value;
        throw Unsaid("'" + name + "' is no flag of TCP");
    }

    // "in": any of the flags, as a comparison with none of them says too; "!": none. A list of flags is one value.
    std::vector<std::string> flag_values(const std::string &op, uint64_t mask, const json &right) const
    {
        std::vector<std::string> values;
        const auto put = [&values](uint64_t value, uint64_t of) {
            values.push_back(std::to_string(value).append("/").append(std::to_string(of)));
        };
        const bool several = right.is_object() && right.contains("set");
        for (const json &one : several ? elements(right) : std::vector{right}) {
            const uint64_t value = flags(one);
            if (op == "==" && (value & ~mask) == 0)
                put(value, mask);
            else if (op == "!" && !several)
                put(0, value & mask);
            else if (op == "in" || (op == "!=" && value == 0 && !several))
                for (uint64_t left = op == "in" ? value & mask : mask; left != 0; left &= left - 1)
                    put(left & -left, left & -left);
            else
                throw Unsaid("this comparison of TCP's flags cannot be said");
        }
        return values;
    }

    static bool narrow_some_ports(const std::string &side, const std::vector<std::string> &values, Matches &matches)
    {
        const bool ranges = std::any_of(values.begin(), values.end(),
                                        [](const std::string &value) { return value.find('-') != std::string::npos; });
        std::vector<std::string> all = values;
        for (std::string &value : all)
            if (ranges && value.find('-') == std::string::npos)
                value = std::string(value).append("-").append(value);
        matches.narrow(side + (ranges ? "_range" : "_l4port"), all);
        return false;
    }

    static bool is_established(const json &ct, const json &right)
    {
        if (text_at(ct, "key") != "state")
            throw Unsaid("a switch does not track connections");
        const std::string states = right.dump();
        if (states.find("established") == std::string::npos || states.find("new") != std::string::npos ||
            states.find("invalid") != std::string::npos)
            throw Unsaid("a switch does not track connections: " + states.substr(0, 60));
        return true;
    }

    static std::string field_of(const json &left)
    {
        static const std::map<std::string, std::string> fields = {
            {"ip saddr", "ipv4_src"},     {"ip daddr", "ipv4_dst"},         {"ip protocol", "ipv4_proto"},
            {"ip ttl", "ipv4_ttl"},       {"ip dscp", "ipv4_dscp"},         {"ip6 saddr", "ipv6_src"},
            {"ip6 daddr", "ipv6_dst"},    {"ip6 nexthdr", "ipv6_next_hdr"}, {"ip6 hoplimit", "ipv6_hop_lmt"},
            {"tcp sport", "src_l4port"},  {"tcp dport", "dst_l4port"},      {"udp sport", "src_l4port"},
            {"udp dport", "dst_l4port"},  {"th sport", "src_l4port"},       {"th dport", "dst_l4port"},
            {"sctp sport", "src_l4port"}, {"sctp dport", "dst_l4port"},     {"icmp type", "icmp_type"},
            {"icmp code", "icmp_code"},   {"icmpv6 type", "icmp_type"},     {"icmpv6 code", "icmp_code"},
            {"ether saddr", "src_mac"},   {"ether daddr", "dst_mac"},       {"ether type", "etype"},
            {"vlan id", "vid"},           {"meta protocol", "etype"},       {"meta nfproto", "etype"},
            {"meta l4proto", "l4proto"}};
        std::string name = "?";
        if (left.is_object() && left.contains("payload") && left["payload"].contains("protocol"))
            name = text_at(left["payload"], "protocol") + ' ' + text_at(left["payload"], "field");
        else if (left.is_object() && left.contains("meta"))
            name = "meta " + text_at(left["meta"], "key");
        const auto found = fields.find(name);
        if (found == fields.end())
            throw Unsaid("'" + (name == "?" ? left.dump().substr(0, 60) : name) + "' cannot be said");
        return found->second;
    }

    static void append(const std::string &field, const json &element, std::vector<std::string> &values)
    {
        if (element.is_object() && element.contains("elem") && element["elem"].contains("val"))
            return append(field, element["elem"]["val"], values);
        if (element.is_object() && element.contains("prefix")) {
            values.push_back(text_at(element["prefix"], "addr") + '/' + scalar(element["prefix"].value("len", json())));
        } else if (element.is_object() && element.contains("range") && element["range"].size() == 2) {
            const std::string low = scalar(element["range"][0]), high = scalar(element["range"][1]);
            if (!field.starts_with("ip")) {
                if (!field.ends_with("_l4port"))
                    throw Unsaid("a range of " + field + " cannot be said");
                values.push_back(std::string(low).append("-").append(high));
            }
            for (const Prefix &block : field.starts_with("ip") ? range_of(low, high) : std::vector<Prefix>())
                values.push_back(block.text());
        } else {
            const std::string value = scalar(element);
            values.push_back(value == "ipv6-icmp" ? "icmpv6"
                             : value == "ip"      ? "ipv4"
                             : value == "ip6"     ? "ipv6"
                                                  : value);
        }
    }

    static void negate(const std::string &field, std::vector<std::string> &values)
    {
        const bool port = field.ends_with("_l4port");
        const auto block = values.size() == 1 && !port ? prefix_of(values[0]) : std::nullopt;
        if (block && field.starts_with("ip")) {
            values.clear();
            for (const Prefix &other : complement(*block))
                values.push_back(other.text());
        } else if (values.size() == 1 && port) {
            Matches ports;
            const size_t hyphen = std::min(values[0].find('-'), values[0].size());
            const auto low = static_cast<uint32_t>(std::strtoul(values[0].c_str(), nullptr, 10));
            const auto high = hyphen == values[0].size()
                                  ? low
                                  : static_cast<uint32_t>(std::strtoul(values[0].c_str() + hyphen + 1, nullptr, 10));
            narrow_ports(ports, field.substr(0, 3), low, high, true);
            values.clear();
            for (const Match &match : ports.any())
                values.push_back(match[0].second);
        } else {
            throw Unsaid("what is not one of several cannot be said");
        }
        if (values.size() > 32)
            throw Unsaid("what is not " + values[0] + " is more than 32 blocks");
    }

    const Options &options_;
    Draft &draft_;
    std::map<std::string, NftChain> chains_;
    std::map<std::string, json> sets_;
    std::string table_;
    std::string first_; // chain
};

} // namespace

void read_nft(std::istream &in, const Options &options, Draft &draft)
{
    NftReader(options, draft).read(in);
}

} // namespace plx::tool::import
