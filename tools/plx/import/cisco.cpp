// Access lists as routers and switches have them in their configuration: standard, extended, named, of IPv6.
#include "import/draft.hpp"

#include "attribute_value.hpp"
#include "import/prefixes.hpp"
#include <algorithm>
#include <map>

namespace plx::tool::import {

namespace {

constexpr int deepest = 16; // groups in groups

struct CiscoRule {
    int line;
    std::string text;
    std::vector<std::string> words; // from "permit" or "deny" on
};

struct List {
    bool ipv6 = false, standard = false;
    std::map<uint64_t, std::vector<CiscoRule>> rules{}; // by sequence number
    uint64_t last = 0;
    std::string remark{};
};

// What a name stands for, line by line.
struct Group {
    bool wildcards = false; // behind addresses, instead of masks
    std::string protocol{}; // of all ports in it
    std::vector<std::vector<std::string>> lines{};
};

class Words {
  public:
    explicit Words(const std::vector<std::string> &words) : words_(words) {}
    bool end() const { return at_ == words_.size(); }
    std::string peek() const { return end() ? "" : words_[at_]; }
    std::string next()
    {
        if (end())
            throw Unsaid("it ends too early");
        return words_[at_++];
    }
    bool take(std::string_view word)
    {
        const bool is = peek() == word;
        at_ += is ? 1 : 0;
        return is;
    }

  private:
    const std::vector<std::string> &words_;
    size_t at_ = 0;
};

const std::map<std::string, std::pair<int, int>> &icmp_words()
{
    static const std::map<std::string, std::pair<int, int>> words = {{"echo", {8, -1}},
                                                                     {"echo-request", {8, -1}},
                                                                     {"echo-reply", {0, -1}},
                                                                     {"unreachable", {3, -1}},
                                                                     {"port-unreachable", {3, 3}},
                                                                     {"host-unreachable", {3, 1}},
                                                                     {"packet-too-big", {3, 4}},
                                                                     {"time-exceeded", {11, -1}},
                                                                     {"ttl-exceeded", {11, 0}},
                                                                     {"redirect", {5, -1}},
                                                                     {"parameter-problem", {12, -1}},
                                                                     {"source-quench", {4, -1}},
                                                                     {"traceroute", {30, -1}},
                                                                     {"administratively-prohibited", {3, 13}}};
    return words;
}

const std::map<std::string, std::pair<int, int>> &icmpv6_words()
{
    static const std::map<std::string, std::pair<int, int>> words = {{"echo-request", {128, -1}},
                                                                     {"echo-reply", {129, -1}},
                                                                     {"unreachable", {1, -1}},
                                                                     {"packet-too-big", {2, -1}},
                                                                     {"time-exceeded", {3, -1}},
                                                                     {"parameter-problem", {4, -1}},
                                                                     {"nd-ns", {135, -1}},
                                                                     {"nd-na", {136, -1}},
                                                                     {"router-solicitation", {133, -1}},
                                                                     {"router-advertisement", {134, -1}}};
    return words;
}

class CiscoReader {
  public:
    CiscoReader(const Options &options, Draft &draft) : options_(options), draft_(draft) {}

    void read(std::istream &in)
    {
        std::string line;
        for (int number = 1; std::getline(in, line); ++number)
            read(number, line);
        const std::string name = list_name();
        const List &list = lists_[name];
        for (const auto &[sequence, rules] : list.rules)
            for (const CiscoRule &rule : rules)
                add(list, rule);
        for (const char *type : {"135", "136"}) { // neighbours find each other before IPv6 is denied
            Matches neighbours;
            neighbours.narrow("ipv6_next_hdr", {"icmpv6"});
            neighbours.narrow("icmp_type", {type});
            if (list.ipv6)
                draft_.add(neighbours, true, "implicit-neighbours");
        }
        Matches rest;
        rest.narrow("etype", {list.ipv6 ? "ipv6" : "ipv4"});
        draft_.add(rest, false, "implicit-deny");
        apply(name);
    }

  private:
    void read(int number, const std::string &line)
    {
        const std::vector<std::string> words = words_of(line);
        if (words.empty() || words[0] == "!" || words[0] == "end" || words[0] == "exit")
            return;
        const bool ipv6 = words[0] == "ipv6";
        if (words[0] == "object-group" && words.size() > 2)
            return begin_group(words);
        if (group_ != nullptr && (line[0] == ' ' || line[0] == '\t'))
            return group_->lines.push_back(words);
        group_ = nullptr;
        if ((words[0] == "ip" || ipv6) && words.size() > 2 && words[1] == "access-list")
            return begin_list(words, ipv6);
        if (words[0] == "access-list" && words.size() > 3) {
            current_ = words[1];
            uint64_t named = 0;
            parse_number(current_, named);
            lists_[current_].standard = named < 100 || (named >= 1300 && named < 2000);
            return take(number, line, {words.begin() + 2, words.end()});
        }
        if ((words[0] == "ip" && words.size() == 4 && words[1] == "access-group") ||
            (ipv6 && words.size() == 4 && words[1] == "traffic-filter")) {
            applied_.push_back({number, line, {words[2], words[3], interface_}});
            return;
        }
        if (words[0] == "interface" && words.size() > 1) {
            interface_ = words[1];
            for (size_t at = 2; at < words.size(); ++at)
                interface_ += words[at];
            current_.clear();
        } else if (line[0] != ' ' && line[0] != '\t' && !is_rule(words)) {
            current_.clear(); // something else of a configuration
        } else if (!current_.empty()) {
            take(number, line, words);
        }
    }

    // "object-group network SERVERS", "object-group service WEB tcp", "object-group ip address SERVERS".
    void begin_group(const std::vector<std::string> &words)
    {
        const bool of_family = (words[1] == "ip" || words[1] == "ipv6") && words.size() > 3;
        current_.clear();
        group_ = &groups_[words[of_family ? 3 : 2]];
        *group_ = {of_family, !of_family && words.size() > 3 ? words[3] : "", {}};
    }

    static bool is_rule(const std::vector<std::string> &words)
    {
        uint64_t number = 0;
        return words[0] == "permit" || words[0] == "deny" || words[0] == "remark" || parse_number(words[0], number);
    }

    void begin_list(const std::vector<std::string> &words, bool ipv6)
    {
        const bool kind = !ipv6 && words.size() > 3;
        current_ = words[kind ? 3 : 2];
        lists_[current_].ipv6 = ipv6;
        lists_[current_].standard = kind && words[2] == "standard";
    }

    void take(int number, const std::string &line, std::vector<std::string> words)
    {
        List &list = lists_[current_];
        uint64_t sequence = list.last + 10;
        if (words[0] == "sequence")
            words.erase(words.begin());
        if (parse_number(words[0], sequence))
            words.erase(words.begin());
        if (!words.empty() && words[0] == "remark") {
            list.remark.clear();
            for (size_t at = 1; at < words.size(); ++at)
                list.remark += (at == 1 ? "" : " ") + words[at];
            return;
        }
        list.last = sequence;
        words.insert(words.begin(), list.remark);
        list.remark.clear();
        list.rules[sequence].push_back({number, line, std::move(words)});
    }

    std::string list_name() const
    {
        if (!options_.list.empty() && lists_.contains(options_.list))
            return options_.list;
        if (!options_.list.empty() || lists_.size() != 1)
            throw Unsaid(lists_.empty()          ? "there is no access list"
                         : options_.list.empty() ? "there are several access lists: name one with --list"
                                                 : "there is no access list " + options_.list);
        return lists_.begin()->first;
    }

    // Where the list is applied, unless the command says where.
    void apply(const std::string &name)
    {
        for (const CiscoRule &applied : applied_) {
            const std::string &direction = applied.words[1], &interface = applied.words[2];
            if (applied.words[0] != name || !options_.port.empty())
                continue;
            const auto port = options_.interfaces.find(interface);
            if (port == options_.interfaces.end())
                draft_.refuse(applied.line, applied.text,
                              "no port is known for it: --interface " + interface + "=PORT, or --port", false);
            else if (direction != "in" && direction != "out")
                draft_.refuse(applied.line, applied.text, "the direction '" + direction + "' cannot be said", false);
            else
                draft_.apply(port->second, direction);
        }
    }

    void add(const List &list, const CiscoRule &rule)
    {
        std::optional<bool> permits;
        try {
            const std::vector<std::string> behind(rule.words.begin() + 1, rule.words.end());
            Words words(behind);
            const std::string verdict = words.next();
            if (verdict != "permit" && verdict != "deny")
                throw Unsaid("it is neither permit nor deny");
            permits = verdict == "permit";
            for (const Matches &matches : matches_of(list, words))
                draft_.add(matches, *permits, rule.words[0]);
        } catch (const Unsaid &why) {
            draft_.refuse(rule.line, rule.text, why.what(), permits);
        }
    }

    std::vector<Matches> matches_of(const List &list, Words &words)
    {
        Matches matches;
        const std::string family = list.ipv6 ? "ipv6_" : "ipv4_";
        if (list.standard) {
            take_address(family + "src", words, list.ipv6, matches, true);
            return finish(words, false, list.ipv6, matches);
        }
        const std::string protocol = words.next();
        if (protocol == "object-group")
            matches.narrow(services(words.next(), list.ipv6, 0));
        else
            narrow_protocol(protocol, list.ipv6, matches);
        take_address(family + "src", words, list.ipv6, matches, false);
        take_ports("src", words, matches);
        take_address(family + "dst", words, list.ipv6, matches, false);
        take_ports("dst", words, matches);
        bool is_established = false;
        while (!words.end() && words.peek() != "log" && words.peek() != "log-input") {
            if (words.take("established"))
                is_established = true;
            else
                take_option(list, words, protocol == "icmp", matches);
        }
        return finish(words, is_established, list.ipv6, matches);
    }

    static void narrow_protocol(const std::string &protocol, bool ipv6, Matches &matches)
    {
        if (protocol != "ip" && protocol != "ipv6" && protocol != "ipv4")
            matches.narrow(ipv6 ? "ipv6_next_hdr" : "ipv4_proto", {ipv6 && protocol == "icmp" ? "icmpv6" : protocol});
    }

    // ---- groups: what each of their lines matches, and those of the groups in them
    template <typename Take> Matches any_of(const std::string &name, int depth, Take &&take) const
    {
        const auto group = groups_.find(name);
        if (group == groups_.end() || depth == deepest)
            throw Unsaid("the group " + name + (depth == deepest ? " is in itself" : " is not defined here"));
        Matches any = Matches::none();
        for (const std::vector<std::string> &line : group->second.lines) {
            Words words(line);
            if (uint64_t sequence = 0; parse_number(words.peek(), sequence))
                words.next();
            if (words.peek() == "description")
                continue;
            Matches one;
            take(group->second, words, one);
            if (!words.end())
                throw Unsaid("'" + words.peek() + "' in the group " + name + " cannot be said");
            any.widen(one);
        }
        return any;
    }

    Matches addresses(const std::string &name, const std::string &field, int depth) const
    {
        return any_of(name, depth, [&](const Group &group, Words &words, Matches &one) {
            words.take("network-object");
            if (words.take("group-object"))
                one.narrow(addresses(words.next(), field, depth + 1));
            else if (words.take("range"))
                one.narrow(field, blocks(words));
            else if (group.wildcards || words.peek() == "any" || words.peek() == "host" || field.starts_with("ipv6"))
                take_address(field, words, field.starts_with("ipv6"), one, false);
            else
                one.narrow(field, {masked(words.next(), words)});
        });
    }

    static std::vector<std::string> blocks(Words &words)
    {
        const std::string first = words.next(), last = words.next();
        std::vector<std::string> values;
        for (const Prefix &block : range_of(first, last))
            values.push_back(block.text());
        if (values.empty())
            throw Unsaid(first + " to " + last + " are no addresses");
        return values;
    }

    // "10.0.0.0 255.0.0.0", "10.0.0.0 /8", "10.0.0.0/8"
    static std::string masked(const std::string &address, Words &words)
    {
        if (words.end() || address.find('/') != std::string::npos)
            return address;
        const std::string mask = words.next();
        return address + (mask.starts_with('/') ? "" : "/") + mask;
    }

    // Protocols with their ports: "tcp eq 80", "udp source range 1 9", "icmp echo", "eq 80" of a group of one protocol.
    Matches services(const std::string &name, bool ipv6, int depth) const
    {
        return any_of(name, depth, [&](const Group &group, Words &words, Matches &one) {
            words.take("service-object");
            words.take("port-object");
            if (words.take("group-object"))
                return one.narrow(services(words.next(), ipv6, depth + 1));
            const std::string protocol = group.protocol.empty() ? words.next() : group.protocol;
            if (protocol == "tcp-udp")
                one.narrow(ipv6 ? "ipv6_next_hdr" : "ipv4_proto", {"tcp", "udp"});
            else
                narrow_protocol(protocol, ipv6, one);
            if (protocol == "icmp" && !words.end())
                return take_icmp(ipv6, words, one);
            if (words.take("source"))
                take_ports("src", words, one);
            words.take("destination");
            take_ports("dst", words, one);
        });
    }

    Matches ports(const std::string &name, const std::string &side) const
    {
        return any_of(name, 0, [&](const Group &, Words &words, Matches &one) { take_ports(side, words, one); });
    }

    // "log" has no bearing on a verdict.
    std::vector<Matches> finish(Words &words, bool is_established, bool ipv6, Matches &matches)
    {
        if (words.take("log") || words.take("log-input"))
            draft_.note("'log' is left out: what is let through stays the same");
        if (!words.end())
            throw Unsaid("'" + words.peek() + "' cannot be said");
        if (is_established)
            return established(matches, ipv6);
        if (!matches.has(ipv6 ? "ipv6_" : "ipv4_"))
            matches.narrow("etype", {ipv6 ? "ipv6" : "ipv4"});
        return {matches};
    }

    static void take_option(const List &list, Words &words, bool icmp, Matches &matches)
    {
        if (words.take("fragments")) {
            if (list.ipv6)
                throw Unsaid("fragments of IPv6 cannot be said");
            return matches.narrow("ipv4_frag", {"2"});
        }
        if (words.take("dscp")) {
            const std::string value = words.next();
            uint64_t number = 0;
            if (list.ipv6 && !parse_number(value, number))
                throw Unsaid("the DSCP " + value + " of IPv6 must be a number");
            return list.ipv6 ? matches.narrow("ipv6_tc", {std::to_string(number << 2U) + "/0xfc"})
                             : matches.narrow("ipv4_dscp", {value});
        }
        if (words.take("ttl") && words.take("eq"))
            return matches.narrow(list.ipv6 ? "ipv6_hop_lmt" : "ipv4_ttl", {words.next()});
        for (const auto &[name, bit] :
             {std::pair{"ack", 16}, {"rst", 4}, {"syn", 2}, {"fin", 1}, {"psh", 8}, {"urg", 32}})
            if (words.take(name))
                return matches.narrow("tcp_flag", {std::to_string(bit) + '/' + std::to_string(bit)});
        if (icmp)
            return take_icmp(list.ipv6, words, matches);
        throw Unsaid("'" + words.peek() + "' cannot be said");
    }

    static void take_icmp(bool ipv6, Words &words, Matches &matches)
    {
        const std::string word = words.next();
        const auto &known = ipv6 ? icmpv6_words() : icmp_words();
        if (const auto found = known.find(word); found != known.end()) {
            matches.narrow("icmp_type", {std::to_string(found->second.first)});
            if (found->second.second >= 0)
                matches.narrow("icmp_code", {std::to_string(found->second.second)});
            return;
        }
        uint64_t number = 0;
        if (!parse_number(word, number))
            throw Unsaid("'" + word + "' cannot be said");
        matches.narrow("icmp_type", {word});
        if (parse_number(words.peek(), number))
            matches.narrow("icmp_code", {words.next()});
    }

    // "any", "host A", "A WILDCARD", "A/N".
    void take_address(const std::string &field, Words &words, bool ipv6, Matches &matches, bool may_be_alone) const
    {
        if (words.take("any"))
            return;
        const bool host = words.take("host");
        const std::string address = words.next();
        if (address == "object-group" || address == "addrgroup")
            return matches.narrow(addresses(words.next(), field, 0));
        if (host || ipv6 || address.find('/') != std::string::npos ||
            (may_be_alone && (words.end() || words.peek() == "log")))
            return matches.narrow(field, {address});
        // A wildcard's bits are those that do not matter; they may stand anywhere.
        const auto base = prefix_of(address), wildcard = prefix_of(words.next());
        if (!base || !wildcard || base->ipv6 || wildcard->ipv6)
            throw Unsaid("'" + address + "' is no address with a wildcard mask");
        Prefix value = *base, mask = *wildcard;
        for (size_t at = 0; at < 4; ++at) {
            mask.bytes[at] = static_cast<uint8_t>(~mask.bytes[at]);
            value.bytes[at] &= mask.bytes[at];
        }
        matches.narrow(field, {value.text() + '/' + mask.text()});
    }

    static uint32_t port(const std::string &text)
    {
        static const std::map<std::string, uint32_t> words = {
            {"www", 80},         {"domain", 53},    {"smtp", 25},    {"telnet", 23},      {"ftp", 21},
            {"ftp-data", 20},    {"bootps", 67},    {"bootpc", 68},  {"tftp", 69},        {"ntp", 123},
            {"snmp", 161},       {"snmptrap", 162}, {"syslog", 514}, {"bgp", 179},        {"pop3", 110},
            {"isakmp", 500},     {"rip", 520},      {"tacacs", 49},  {"netbios-ns", 137}, {"netbios-dgm", 138},
            {"netbios-ss", 139}, {"lpd", 515},      {"nntp", 119},   {"whois", 43}};
        uint64_t value = 0;
        if (parse_number(text, value) && value <= UINT16_MAX)
            return static_cast<uint32_t>(value);
        const auto found = words.find(text);
        if (found == words.end())
            throw Unsaid("'" + text + "' is no port that is known here");
        return found->second;
    }

    void take_ports(const std::string &side, Words &words, Matches &matches) const
    {
        if (words.take("portgroup"))
            return matches.narrow(ports(words.next(), side));
        if (words.take("range")) {
            const uint32_t low = port(words.next());
            return narrow_ports(matches, side, low, port(words.next()), false);
        }
        if (words.take("neq")) {
            const uint32_t only = port(words.next());
            return narrow_ports(matches, side, only, only, true);
        }
        if (words.take("gt"))
            return narrow_ports(matches, side, port(words.next()) + 1, UINT16_MAX, false);
        if (words.take("lt")) {
            const uint32_t first = port(words.next());
            return narrow_ports(matches, side, first == 0 ? 1 : 0, first == 0 ? 0 : first - 1, false);
        }
        if (!words.take("eq"))
            return;
        std::vector<std::string> ports{std::to_string(port(words.next()))};
        for (uint64_t number = 0; parse_number(words.peek(), number);) // some take several
            ports.push_back(std::to_string(port(words.next())));
        matches.narrow(side + "_l4port", ports);
    }

    const Options &options_;
    Draft &draft_;
    std::map<std::string, List> lists_;
    std::string current_, interface_;
    std::vector<CiscoRule> applied_;
    std::map<std::string, Group> groups_;
    Group *group_ = nullptr; // the one that is being defined
};

} // namespace

void read_cisco(std::istream &in, const Options &options, Draft &draft)
{
    CiscoReader(options, draft).read(in);
}

} // namespace plx::tool::import
