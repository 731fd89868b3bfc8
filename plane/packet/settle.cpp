// See settle.hpp.
#include "plane/packet/settle.hpp"

#include "plane/packet/fields.hpp"
#include <algorithm>
#include <utility>

namespace plx::plane::packet {

namespace {

constexpr Source ipv4_protocol{Load::network, 1, 9}, fragment_word{Load::network, 2, 6}, second_type{Load::link, 2, 16};

Bytes full_mask(const Test &test)
{
    return test.mask.size != 0 ? test.mask : ones(test.source.size);
}

bool transport_is_read(const Test &test)
{
    return test.source.load == Load::transport || test.source.load == Load::l4proto;
}

auto find_place(auto &facts, const auto &place)
{
    return std::lower_bound(facts.begin(), facts.end(), place,
                            [](const auto &fact, const auto &wanted) { return fact.first < wanted; });
}

// The bits that the tests for equality give away, byte by byte, and who asked for them.
class Facts {
  public:
    // The attribute whose fact excludes the test; nullptr when there is none, and the facts are richer by it.
    const Form *learn(const Test &test, const Form *by)
    {
        const Bytes mask = full_mask(test);
        for (uint8_t at = 0; at < test.source.size; ++at) {
            Fact &fact = fact_at(place(test.source, at));
            if (((fact.value ^ test.value.data[at]) & fact.mask & mask.data[at]) != 0)
                return fact.by;
            if (mask.data[at] != 0)
                fact.by = by;
            fact.mask |= mask.data[at];
            fact.value = static_cast<uint8_t>(fact.value | (test.value.data[at] & mask.data[at]));
        }
        return nullptr;
    }

    // The value of a source, when all of its bits are known; `by` tells from whom.
    std::optional<Bytes> known(const Source &source, const Form **by = nullptr) const
    {
        Bytes bytes;
        bytes.size = source.size;
        for (uint8_t at = 0; at < source.size; ++at) {
            const auto fact = find_place(facts_, place(source, at));
            if (fact == facts_.end() || fact->first != place(source, at) || fact->second.mask != 0xff)
                return std::nullopt;
            bytes.data[at] = fact->second.value;
            if (by != nullptr)
                *by = fact->second.by;
        }
        return bytes;
    }

  private:
    struct Fact {
        uint8_t mask = 0, value = 0;
        const Form *by = nullptr;
    };
    using Place = std::pair<Load, unsigned>;
    static Place place(const Source &source, uint8_t at) { return {source.load, unsigned{source.offset} + at}; }

    Fact &fact_at(const Place &place)
    {
        const auto at = find_place(facts_, place);
        return at != facts_.end() && at->first == place ? at->second : facts_.insert(at, {place, Fact()})->second;
    }

    std::vector<std::pair<Place, Fact>> facts_; // in order of their places
};

// One pass over the tests; each step is a member, so that a conflict ends the pass where it is found.
class Settling {
  public:
    explicit Settling(std::vector<Sought> sought) : sought_(std::move(sought)) {}

    Settled run()
    {
        unite();
        if (learn() && link_protocols() && link_tags() && weigh() && compare_pairs() && check_transport())
            drop_implied();
        Settled settled{.tests = {}, .one = one_, .other = other_};
        if (!settled.possible())
            return settled;
        for (const Sought &sought : sought_)
            settled.tests.push_back(sought.test);
        keep_off_fragments(settled.tests);
        order(settled.tests);
        return settled;
    }

  private:
    bool conflict(const Form *one, const Form *other)
    {
        one_ = one;
        other_ = other;
        return false;
    }

    // Two tests of the same bits, each for some of them, are one; one that is there twice goes. A conflict among them
    // is for learn() to find.
    void unite()
    {
        for (size_t at = 0; at < sought_.size(); ++at) {
            for (size_t later = at + 1; later < sought_.size();)
                later = unite(sought_[at].test, sought_[later].test) ? erase(later) : later + 1;
        }
    }

    size_t erase(size_t at)
    {
        sought_.erase(sought_.begin() + static_cast<std::ptrdiff_t>(at));
        return at;
    }

    static bool unite(Test &test, const Test &later)
    {
        if (test == later)
            return true;
        if (test.source != later.source || test.relation != Relation::equal || later.relation != Relation::equal)
            return false;
        Bytes mask = full_mask(test);
        const Bytes more = full_mask(later);
        for (uint8_t at = 0; at < test.source.size; ++at) {
            if (((test.value.data[at] ^ later.value.data[at]) & mask.data[at] & more.data[at]) != 0)
                return false;
        }
        for (uint8_t at = 0; at < test.source.size; ++at) {
            mask.data[at] |= more.data[at];
            test.value.data[at] |= later.value.data[at];
        }
        test.mask = mask == ones(mask.size) ? Bytes() : mask;
        return true;
    }

    bool learn()
    {
        for (const auto &[test, by] : sought_) {
            if (test.relation != Relation::equal)
                continue;
            if (const Form *other = facts_.learn(test, by))
                return conflict(by, other);
        }
        return true;
    }

    // The protocol in an IPv4 header is that of its transport header.
    bool link_protocols()
    {
        if (facts_.known(protocol) != Bytes(ipv4_type, 2))
            return true;
        const Form *by = nullptr;
        const auto inside = facts_.known(ipv4_protocol, &by);
        if (!inside)
            return true;
        linked_ = true;
        const Form *other = facts_.learn({.source = l4proto, .value = *inside}, by);
        return other == nullptr || conflict(by, other);
    }

    // Behind two tags, the Ethernet type behind the first one is a tag's.
    bool link_tags()
    {
        const auto two = std::find_if(sought_.begin(), sought_.end(), [](const Sought &sought) {
            return sought.test.source == second_type && sought.test.relation == Relation::one_of;
        });
        if (two == sought_.end())
            return true;
        const Test type{.source = protocol, .relation = Relation::one_of, .set = two->test.set};
        const auto against = std::find_if(sought_.begin(), sought_.end(), [&type](const Sought &sought) {
            return sought.test.source == protocol && excludes(type, sought.test);
        });
        return against == sought_.end() || conflict(against->by, two->by);
    }

    // Tests of values that are known.
    bool weigh()
    {
        for (const auto &[test, by] : sought_) {
            const Form *other = by;
            const auto value = facts_.known(test.source, &other);
            if (value && !holds(test, *value))
                return conflict(by, other);
        }
        return true;
    }

    // Tests of the same source that leave each other no value: intervals, and sets, whose values can be tried.
    bool compare_pairs()
    {
        for (const auto &[test, by] : sought_) {
            const auto excluded_by = [&test = test](const Sought &other) {
                return other.test.source == test.source && excludes(test, other.test);
            };
            const auto other = std::find_if(sought_.begin(), sought_.end(), excluded_by);
            if (other != sought_.end())
                return conflict(by, other->by);
        }
        return true;
    }

    static bool excludes(const Test &test, const Test &other)
    {
        if (test.relation == Relation::within && other.relation == Relation::within)
            return test.last < other.value || other.last < test.value;
        if (test.relation != Relation::one_of)
            return false;
        return std::none_of(test.set->values.begin(), test.set->values.end(),
                            [&](uint32_t value) { return holds(other, Bytes(value, test.set->size)); });
    }

    // Only IPv4 and IPv6 have a transport header, and later fragments have none.
    bool check_transport()
    {
        const auto reads = std::find_if(sought_.begin(), sought_.end(),
                                        [](const Sought &sought) { return transport_is_read(sought.test); });
        if (reads == sought_.end())
            return true;
        const Form *excluding = nullptr;
        for (const uint16_t type : {ipv4_type, ipv6_type}) {
            const auto against = std::find_if(sought_.begin(), sought_.end(), [type](const Sought &sought) {
                return sought.test.source == protocol && !holds(sought.test, Bytes(type, 2));
            });
            if (against == sought_.end())
                return check_fragment();
            excluding = against->by;
        }
        return conflict(reads->by, excluding);
    }

    bool check_fragment()
    {
        const auto header = std::find_if(sought_.begin(), sought_.end(), [](const Sought &sought) {
            return sought.test.source.load == Load::transport;
        });
        const auto later = std::find_if(sought_.begin(), sought_.end(), [](const Sought &sought) {
            const Bytes mask = full_mask(sought.test);
            const auto bits = [](const Bytes &bytes) { return (bytes.data[0] << 8 | bytes.data[1]) & offset_bits; };
            const bool is = sought.test.relation == Relation::equal && bits(sought.test.value) != 0;
            const bool is_not = sought.test.relation == Relation::different && sought.test.value == Bytes(0, 2) &&
                                mask == Bytes(offset_bits, 2);
            return sought.test.source == fragment_word && (is || is_not);
        });
        return header == sought_.end() || later == sought_.end() || conflict(header->by, later->by);
    }

    void drop_implied()
    {
        std::erase_if(sought_, [this](const Sought &sought) {
            const Source &source = sought.test.source;
            if (sought.test.relation == Relation::equal)
                return linked_ && source == l4proto;
            return facts_.known(source).has_value();
        });
    }

    // Linux (6.18) has a short way for loads of 1, 2 or 4 aligned bytes of the transport header, and on it takes a
    // later fragment's data for one. A load that goes the long way keeps such fragments off.
    static void keep_off_fragments(std::vector<Test> &tests)
    {
        const auto takes_long_way = [](const Test &test) {
            const Source &source = test.source;
            const bool aligned = source.size <= 4 && source.size != 3 && source.offset % source.size == 0;
            return source.load == Load::transport && !aligned;
        };
        const bool reads = std::any_of(tests.begin(), tests.end(),
                                       [](const Test &test) { return test.source.load == Load::transport; });
        if (reads && std::none_of(tests.begin(), tests.end(), takes_long_way))
            tests.push_back(presence({Load::transport, 2, 1}));
    }

    // Before the protocols: what nft(8) would try to name by them, and fails an assertion over.
    static int rank(const Test &test, bool named, bool headed)
    {
        switch (test.source.load) {
        case Load::link:
            return 0;
        case Load::network:
            return named ? 2 : 0;
        case Load::protocol:
            return 1;
        case Load::l4proto:
            return 3;
        case Load::extension:
            return 4;
        case Load::transport:
            return headed ? 5 : 2;
        case Load::mark:
        case Load::input:
        case Load::output:
            return 6;
        }
        return 6;
    }

    static void order(std::vector<Test> &tests)
    {
        const bool named = std::any_of(tests.begin(), tests.end(), [](const Test &test) {
            const bool type = test.value == Bytes(ipv4_type, 2) || test.value == Bytes(ipv6_type, 2) ||
                              test.value == Bytes(0x0806, 2);
            return test.source == protocol && test.relation == Relation::equal && test.mask.size == 0 && type;
        });
        constexpr uint8_t known[] = {1, 6, 17, 58, 132};
        const bool headed = std::none_of(tests.begin(), tests.end(), [&known](const Test &test) {
            return test.source == l4proto && test.relation == Relation::equal &&
                   std::find(std::begin(known), std::end(known), test.value.data[0]) == std::end(known);
        });
        std::stable_sort(tests.begin(), tests.end(), [&](const Test &one, const Test &other) {
            return rank(one, named, headed) < rank(other, named, headed);
        });
    }

    std::vector<Sought> sought_;
    Facts facts_;
    bool linked_ = false; // the protocol in the IPv4 header stands for l4proto
    const Form *one_ = nullptr, *other_ = nullptr;
};

} // namespace

Settled settle(std::vector<Sought> sought)
{
    return Settling(std::move(sought)).run();
}

} // namespace plx::plane::packet
