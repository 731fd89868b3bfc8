// Rules as iptables-save(8) and ip6tables-save(8) write them. Jumps to chains are written out in their places.
#include "import/chains.hpp"

#include "attribute_value.hpp"
#include "import/prefixes.hpp"
#include <algorithm>
#include <map>
#include <set>

namespace plx::tool::import {

namespace {

struct IptablesRule {
    int line;
    std::string text;
    std::vector<std::string> words; // behind the chain's name
};

struct IptablesChain {
    std::string policy; // "-" of a user's chain
    std::vector<IptablesRule> rules{};
};

// What a rule's words come to.
struct Meaning {
    Matches matches;
    std::string target;
    std::string comment;
    bool is_goto = false;
    bool established = false;
    bool conditional = false;
};

class IptablesReader : Chains<IptablesRule> {
  public:
    IptablesReader(const Options &options, Draft &draft) : Chains(draft), options_(options), draft_(draft) {}

    void read(std::istream &in)
    {
        std::string line;
        for (int number = 1; std::getline(in, line); ++number)
            read(number, line);
        first_ = first_chain();
        walk(chains_[first_].rules, Matches());
        if (!permits_rest())
            decide(Matches());
    }

  private:
    void read(int number, const std::string &line)
    {
        ipv6_ = ipv6_ || line.find("by ip6tables-save") != std::string::npos;
        if (line.empty() || line[0] == '#' || line == "COMMIT")
            return;
        if (line[0] == '*') {
            table_ = line.substr(1);
            return;
        }
        const std::vector<std::string> words = words_of(line);
        if (words.empty())
            return;
        if (line[0] == ':' && words.size() > 1) {
            if (table_ == "filter")
                chains_[words[0].substr(1)].policy = words[1];
            return;
        }
        const size_t begin = words[0].starts_with('[') ? 1 : 0; // counters
        const bool rule = words.size() > begin + 1 && words[begin] == "-A";
        if (!rule)
            draft_.refuse(number, line, "is no rule", std::nullopt);
        else if (table_ != "filter")
            draft_.refuse(number, line, "a rule of the table " + table_ + " has no verdict that a switch could give",
                          std::nullopt);
        else
            chains_[words[begin + 1]].rules.push_back(
                {number, line, {words.begin() + static_cast<std::ptrdiff_t>(begin) + 2, words.end()}});
    }

    std::string first_chain() const
    {
        std::vector<std::string> filled;
        for (const auto &[name, chain] : chains_)
            if (chain.policy != "-" && !chain.policy.empty() && (!chain.rules.empty() || name == options_.chain))
                filled.push_back(name);
        if (!options_.chain.empty() && chains_.contains(options_.chain))
            return options_.chain;
        if (!options_.chain.empty() || filled.size() != 1)
            throw Unsaid(filled.empty() ? "there is no rule of the table filter"
                                        : "there are rules of several chains: name one with --chain");
        return filled[0];
    }

    // Whose frames: the rules of a file are about one family.
    Matches family(Matches matches) const
    {
        if (!matches.has(ipv6_ ? "ipv6_" : "ipv4_"))
            matches.narrow("etype", {ipv6_ ? "ipv6" : "ipv4"});
        return matches;
    }

    bool permits_rest() { return chains_[first_].policy != "DROP"; }

    void decide(const Matches &frames) override { draft_.add(family(frames), permits_rest(), "policy-" + first_); }

    void refuse(const IptablesRule &rule, const std::string &why) override
    {
        draft_.refuse(rule.line, rule.text, why, permits(rule));
    }

    static std::string target_of(const IptablesRule &rule)
    {
        const auto jump = std::find(rule.words.begin(), rule.words.end(), "-j");
        return jump == rule.words.end() || jump + 1 == rule.words.end() ? "" : jump[1];
    }

    static std::optional<bool> permits(const IptablesRule &rule)
    {
        const std::string target = target_of(rule);
        if (target == "ACCEPT")
            return true;
        return target == "DROP" || target == "REJECT" ? std::optional(false) : std::nullopt;
    }

    bool apply(const IptablesRule &rule, Matches &frames) override
    {
        if (const std::string target = target_of(rule); target == "LOG" || target == "NFLOG") {
            draft_.note(target + " is left out: what is let through stays the same");
            return true;
        }
        Meaning meaning = meaning_of(rule.words);
        if (meaning.target == "REJECT")
            draft_.note("REJECT is a denial: the sender is not told");
        const std::optional<Matches> others = meaning.target == "RETURN" ? meaning.matches.outside() : std::nullopt;
        meaning.matches.narrow(frames);
        const bool permits = meaning.target == "ACCEPT";
        if (permits || meaning.target == "DROP" || meaning.target == "REJECT") {
            add(meaning, permits);
            return true;
        }
        if (meaning.established)
            throw Unsaid("a switch does not track connections");
        if (meaning.target == "RETURN") {
            if (others && meaning.conditional)
                frames.narrow(*others);
            else if (meaning.conditional)
                leave(meaning.matches);
            return meaning.conditional;
        }
        const auto chain = chains_.find(meaning.target);
        if (chain == chains_.end())
            throw Unsaid(meaning.target.empty() ? "it has no verdict"
                                                : "the target " + meaning.target + " is no verdict");
        return jump(chain->second.rules, meaning.matches, meaning.is_goto, !meaning.conditional);
    }

    void add(const Meaning &meaning, bool permits)
    {
        if (!meaning.established)
            return draft_.add(family(meaning.matches), permits, meaning.comment);
        if (!options_.tcp_flags)
            throw Unsaid("a switch does not track connections; --established-as tcp-flags takes TCP's flags for it");
        for (const Matches &each : import::established(meaning.matches, ipv6_))
            draft_.add(each, permits, meaning.comment.empty() ? "established" : meaning.comment);
        draft_.note("established connections: of TCP alone, by its flags ACK and RST, which anybody can set");
    }

    // ---- one rule's words
    Meaning meaning_of(const std::vector<std::string> &words)
    {
        Meaning meaning;
        bool negated = false;
        for (size_t at = 0; at < words.size(); ++at) {
            if (words[at] == "!") {
                negated = true;
                continue;
            }
            const std::string &word = words[at];
            const auto next = [&]() -> const std::string & {
                if (at + 1 == words.size())
                    throw Unsaid(word + " has no value");
                return words[++at];
            };
            if (word == "-m") {
                check_module(next());
            } else if (word == "--reject-with") {
                next();
            } else if (word == "--comment") {
                meaning.comment = next();
            } else if (word == "-j" || word == "-g") {
                meaning.is_goto = word == "-g";
                meaning.target = next();
            } else {
                meaning.conditional = true;
                take(word, negated, next, meaning);
            }
            negated = false;
        }
        return meaning;
    }

    // One that is not known may match by itself, without an option.
    static void check_module(const std::string &name)
    {
        static const std::set<std::string> known = {"tcp",       "udp",       "sctp",  "icmp", "icmp6",
                                                    "ipv6-icmp", "multiport", "state", "mac",  "dscp",
                                                    "conntrack", "ttl",       "hl",    "tos",  "comment"};
        if (!known.contains(name))
            throw Unsaid("the match " + name + " cannot be said of a single frame on a switch");
    }

    template <typename Next> void take(const std::string &word, bool negated, Next &&next, Meaning &meaning)
    {
        static const std::set<std::string> negatable = {
            "-s",       "-d",      "--sport", "--dport",        "--sports",
            "--dports", "--ports", "--port",  "--source-ports", "--destination-ports"};
        if (negated && !negatable.contains(word))
            throw Unsaid("'! " + word + "' cannot be said");
        Matches &matches = meaning.matches;
        const std::string address = ipv6_ ? "ipv6_" : "ipv4_";
        if (word == "-s" || word == "-d")
            return take_address(address + (word == "-s" ? "src" : "dst"), next(), negated, matches);
        if (word == "-p")
            return take_protocol(next(), matches);
        if (word == "--sport" || word == "--sports" || word == "--source-ports")
            return take_ports("src", next(), negated, matches);
        if (word == "--dport" || word == "--dports" || word == "--destination-ports")
            return take_ports("dst", next(), negated, matches);
        if (word == "--ports" || word == "--port")
            return take_either_port(next(), negated, matches);
        if (word == "--icmp-type" || word == "--icmpv6-type")
            return take_icmp(next(), matches);
        if (word == "--syn")
            return matches.narrow("tcp_flag", {"0x02/0x17"});
        if (word == "--tcp-flags") {
            const std::string mask = flags(next());
            return matches.narrow("tcp_flag", {flags(next()) + '/' + mask});
        }
        if (word == "--ttl-eq" || word == "--hl-eq")
            return matches.narrow(ipv6_ ? "ipv6_hop_lmt" : "ipv4_ttl", {next()});
        if (word == "--mac-source")
            return matches.narrow("src_mac", {next()});
        if (word == "-f" && !ipv6_)
            return matches.narrow("ipv4_frag", {"2"});
        if (word == "--dscp")
            return take_dscp(number(next()), matches);
        if (word == "--tos" && !ipv6_)
            return matches.narrow("ipv4_tos", {next()});
        if (word == "--state" || word == "--ctstate")
            return take_state(next(), meaning);
        throw Unsaid(word + " cannot be said of a single frame on a switch");
    }

    static uint64_t number(const std::string &text)
    {
        uint64_t number = 0;
        if (!parse_number(text, number))
            throw Unsaid("'" + text + "' is no number");
        return number;
    }

    static void take_address(const std::string &field, const std::string &text, bool negated, Matches &matches)
    {
        const auto prefix = prefix_of(text);
        if (!prefix && !negated)
            return matches.narrow(field, {text}); // with any mask
        if (!prefix)
            throw Unsaid("'! " + text + "' cannot be said");
        std::vector<std::string> values;
        for (const Prefix &block : negated ? complement(*prefix) : std::vector{*prefix})
            values.push_back(block.text());
        if (values.size() > 32)
            throw Unsaid("'! " + text + "' is more than 32 blocks");
        matches.narrow(field, values);
    }

    void take_protocol(const std::string &text, Matches &matches) const
    {
        if (text == "all")
            return;
        const std::string value = text == "ipv6-icmp" ? "icmpv6" : text;
        matches.narrow(ipv6_ ? "ipv6_next_hdr" : "ipv4_proto", {value});
    }

    static void take_ports(const std::string &side, const std::string &text, bool negated, Matches &matches)
    {
        std::vector<std::pair<uint32_t, uint32_t>> ranges;
        for (size_t begin = 0; begin <= text.size();) {
            const size_t comma = std::min(text.find(',', begin), text.size());
            const std::string part = text.substr(begin, comma - begin);
            const size_t colon = part.find(':');
            const std::string low = part.substr(0, colon),
                              high = colon == std::string::npos ? low : part.substr(colon + 1);
            ranges.emplace_back(low.empty() ? 0 : port(low), high.empty() ? UINT16_MAX : port(high));
            begin = comma + 1;
        }
        if (negated) { // outside of all of them: between them
            std::sort(ranges.begin(), ranges.end());
            std::vector<std::pair<uint32_t, uint32_t>> gaps;
            uint32_t free = 0;
            for (const auto &[low, high] : ranges) {
                if (low > free)
                    gaps.emplace_back(free, low - 1);
                free = std::max(free, high + 1);
            }
            if (free <= UINT16_MAX)
                gaps.emplace_back(free, UINT16_MAX);
            ranges = gaps;
        }
        if (ranges.size() == 1)
            return narrow_ports(matches, side, ranges[0].first, ranges[0].second, false);
        std::vector<std::string> values;
        values.reserve(ranges.size());
        for (const auto &[low, high] : ranges)
            values.push_back(std::to_string(low) + '-' + std::to_string(high));
        matches.narrow(side + "_range", values);
    }

    // Of one of its two ports; negated, of none.
    static void take_either_port(const std::string &text, bool negated, Matches &matches)
    {
        Matches source = matches;
        take_ports("src", text, negated, source);
        take_ports("dst", text, negated, negated ? source : matches);
        if (negated)
            matches = source;
        else
            matches.widen(source);
    }

    static uint32_t port(const std::string &text)
    {
        uint64_t value = 0;
        if (parse_number(text, value) && value <= UINT16_MAX)
            return static_cast<uint32_t>(value);
        for (const NamedValue &named : named_values(NameSet::port))
            if (named.name == text)
                return named.value;
        throw Unsaid("'" + text + "' is no port");
    }

    static void take_icmp(const std::string &text, Matches &matches)
    {
        if (text == "any" || text == "255")
            return;
        const size_t slash = text.find('/');
        matches.narrow("icmp_type", {text.substr(0, slash)});
        if (slash != std::string::npos)
            matches.narrow("icmp_code", {text.substr(slash + 1)});
    }

    static std::string flags(const std::string &text)
    {
        static const std::map<std::string, unsigned> bits = {{"FIN", 1},  {"SYN", 2},  {"RST", 4},    {"PSH", 8},
                                                             {"ACK", 16}, {"URG", 32}, {"ALL", 0x3f}, {"NONE", 0}};
        unsigned all = 0;
        for (size_t begin = 0; begin <= text.size();) {
            const size_t comma = std::min(text.find(',', begin), text.size());
            const auto bit = bits.find(text.substr(begin, comma - begin));
            if (bit == bits.end())
                throw Unsaid("'" + text + "' are no TCP flags");
            all |= bit->second;
            begin = comma + 1;
        }
        return std::to_string(all);
    }

    void take_dscp(uint64_t dscp, Matches &matches) const
    {
        if (ipv6_)
            matches.narrow("ipv6_tc", {std::to_string(dscp << 2U) + "/0xfc"});
        else
            matches.narrow("ipv4_dscp", {std::to_string(dscp)});
    }

    static void take_state(const std::string &text, Meaning &meaning)
    {
        if (text != "ESTABLISHED" && text != "RELATED,ESTABLISHED" && text != "ESTABLISHED,RELATED")
            throw Unsaid("a switch does not track connections: " + text);
        meaning.established = true;
    }

    const Options &options_;
    Draft &draft_;
    std::string table_ = "filter";
    std::map<std::string, IptablesChain> chains_;
    std::string first_; // chain
    bool ipv6_ = false;
};

} // namespace

void read_iptables(std::istream &in, const Options &options, Draft &draft)
{
    IptablesReader(options, draft).read(in);
}

} // namespace plx::tool::import
