// See compile.hpp.
#include "plane/packet/compile.hpp"

#include "plane/packet/actions.hpp"
#include "plane/packet/fields.hpp"
#include "plane/packet/settle.hpp"
#include <algorithm>

namespace plx::plane::packet {

namespace {

// What a rule of the kernel's has room for, with the expressions of its actions.
constexpr size_t most_tests = 32;
constexpr size_t most_alternatives = 32;

constexpr uint16_t vxlan_udp_port = 4789;
constexpr uint16_t lowest_ethertype = 0x600;
constexpr uint16_t behind_two_tags = 22; // offset from the first byte of the frame

const ConstantSet &tags()
{
    return constant_sets()[static_cast<size_t>(Common::tags)];
}

uint64_t number_of(std::span<const uint8_t> bytes)
{
    uint64_t number = 0;
    for (const uint8_t byte : bytes)
        number = number << 8U | byte;
    return number;
}

// A value and its mask, as the form says.
struct Given {
    const Form &form;
    std::span<const uint8_t> value, mask; // no mask: the whole value

    uint64_t number() const { return number_of(value); }
    uint64_t number_mask() const { return mask.empty() ? limit() : number_of(mask); }
    bool whole() const { return mask.empty() || number_mask() == limit(); }
    bool any() const
    {
        return !mask.empty() && std::all_of(mask.begin(), mask.end(), [](uint8_t b) { return b == 0; });
    }
    uint64_t limit() const { return form.bits >= 64 ? ~0ULL : (1ULL << form.bits) - 1; }

    bool in_range() const
    {
        const bool has_limit = form.kind == ValueKind::number || form.kind == ValueKind::flag;
        if (has_limit && (number() > limit() || (!mask.empty() && number_of(mask) > limit())))
            return false;
        for (size_t at = 0; at < mask.size(); ++at) {
            if ((value[at] & ~mask[at]) != 0)
                return false;
        }
        return true;
    }
};

Given given(const Form &form, std::span<const uint8_t> bytes)
{
    return {form, bytes.first(form.bytes()), bytes.subspan(form.bytes())};
}

bool double_tagged(const Test &test)
{
    return test.source == Source{Load::link, 2, 16} && test.relation == Relation::one_of && test.set == &tags();
}

// An entry on its way to rules.
class Compiler {
  public:
    explicit Compiler(const Config &config) : config_(config), deeds_(config) {}

    Compiled run(const Requested &entry)
    {
        const auto attributes = unpack(entry.value);
        if (!attributes)
            return {.status = Status::malformed, .text = "the attributes do not add up"};
        for (const Attribute &attribute : *attributes) {
            if (Refusal refusal = take(attribute); refusal.status != Status::ok)
                return {.status = refusal.status, .text = std::move(refusal.text)};
        }
        return finish();
    }

  private:
    Refusal take(const Attribute &attribute)
    {
        bool known = false;
        const Form *form = form_of(attribute, known);
        if (form == nullptr) {
            const std::string text =
                "attribute " + std::to_string(attribute.id) + " of class " + std::to_string(attribute.cls);
            return known ? Refusal{Status::bad_value, text + ": value of wrong size"}
                         : Refusal{Status::unsupported, text + ": unknown"};
        }
        if (config_.ignored.contains(form))
            return {};
        if (!supports(*form, config_))
            return refuse(Status::unsupported, *form, "this node cannot act on it");
        const Given value = given(*form, attribute.value);
        if (!value.in_range())
            return refuse(Status::out_of_range, *form, "number out of range");
        return form->cls == FP_UDP_ATTR_FIELD ? take_field(*field_of(*form), value)
                                              : deeds_.take(*form, value.number());
    }

    Refusal take_field(const Field &field, const Given &value)
    {
        std::vector<Test> guard;
        add_guard(field.guard, guard);
        add(guard, value.form);
        if (field.guard >= Guard::vxlan && field.guard <= Guard::vxlan_tag_ports)
            vxlan_ = &value.form;
        switch (field.meaning) {
        case Meaning::vxlan_port:
            vxlan_port_given_ = true;
            [[fallthrough]];
        case Meaning::bits:
            return take_bits(field.source, field.shift, value);
        case Meaning::ethertype:
            if (value.whole() && value.number() < lowest_ethertype)
                return refuse(Status::out_of_range, value.form, "no Ethernet type");
            return take_bits(field.source, 0, value);
        case Meaning::user_defined:
            return take_bits(*config_.udf[static_cast<size_t>(field.name.back() - '1')], 0, value);
        case Meaning::port_range:
            return take_range(field.source, value);
        case Meaning::next_header:
            return take_next_header(field.source, value);
        case Meaning::ip_type:
        case Meaning::fragment:
        case Meaning::vlan_form:
            return take_state(states_of(field.meaning), value);
        case Meaning::input:
            directions_ &= ingress;
            return take_port(field.source, value);
        case Meaning::output:
            directions_ &= egress;
            return take_port(field.source, value);
        }
        return {};
    }

    Refusal take_bits(const Source &source, uint8_t shift, const Given &value)
    {
        const bool wide = value.form.bytes() > sizeof(uint64_t);
        const Bytes bits = wide ? Bytes(value.value) : Bytes(value.number() << shift, source.size);
        const Bytes mask = !wide                ? Bytes(value.number_mask() << shift, source.size)
                           : value.mask.empty() ? ones(source.size)
                                                : Bytes(value.mask);
        if (const auto test = bits_test(source, bits, mask))
            add({*test}, value.form);
        return {};
    }

    Refusal take_range(const Source &source, const Given &value)
    {
        const Bytes first(value.value.first(2)), last(value.value.last(2));
        if (first > last)
            return refuse(Status::out_of_range, value.form, "its first port is beyond its last");
        Test test{.source = source, .relation = Relation::within, .value = first, .last = last};
        if (first == last)
            test = {.source = source, .value = first};
        add({test}, value.form);
        return {};
    }

    Refusal take_next_header(const Source &source, const Given &value)
    {
        constexpr uint64_t passed_over[] = {0, 43, 44, 60}; // on the way to the transport header
        if (!value.whole())
            return take_bits(source, 0, value);
        const uint64_t type = value.number();
        if (std::find(std::begin(passed_over), std::end(passed_over), type) == std::end(passed_over))
            return take_bits({Load::l4proto, 1, 0}, 0, value);
        add({{.source = {Load::extension, 1, static_cast<uint16_t>(type)}, .value = Bytes(1, 1)}}, value.form);
        return {};
    }

    Refusal take_state(const std::vector<State> &states, const Given &value)
    {
        std::vector<const State *> fitting;
        for (const State &state : states) {
            if ((state.value & value.number_mask()) == value.number())
                fitting.push_back(&state);
        }
        if (fitting.empty())
            return refuse(Status::out_of_range, value.form, "no such kind");
        if (fitting.size() == states.size())
            return {};
        if (fitting.size() * alternatives_.size() > most_alternatives)
            return refuse(Status::unsupported, value.form, "too many alternatives");
        std::vector<std::vector<Sought>> product;
        for (const State *state : fitting) {
            for (std::vector<Sought> alternative : alternatives_) {
                for (const Test &test : state->tests)
                    alternative.push_back({test, &value.form});
                product.push_back(std::move(alternative));
            }
        }
        alternatives_ = std::move(product);
        return {};
    }

    Refusal take_port(const Source &source, const Given &value)
    {
        if (directions_ == 0)
            return refuse(Status::contradiction, value.form, "input_port and dst_port exclude each other");
        if (value.any())
            return {};
        if (!value.whole())
            return refuse(Status::unsupported, value.form, "its mask must be whole");
        const auto port = config_.ports.find(static_cast<uint32_t>(value.number()));
        if (port == config_.ports.end()) {
            elsewhere_ = true;
            return {};
        }
        std::vector<uint8_t> name(port->second.begin(), port->second.end());
        name.resize(source.size);
        add({{.source = source, .value = Bytes(name)}}, value.form);
        return {};
    }

    void add(const std::vector<Test> &tests, const Form &by)
    {
        for (std::vector<Sought> &alternative : alternatives_) {
            for (const Test &test : tests)
                seek(test, by, alternative);
        }
    }

    // Once: a test may be in the guards of several attributes.
    static void seek(const Test &test, const Form &by, std::vector<Sought> &alternative)
    {
        const auto same = [&test](const Sought &sought) { return sought.test == test; };
        if (std::none_of(alternative.begin(), alternative.end(), same))
            alternative.push_back({test, &by});
    }

    Compiled finish()
    {
        if (vxlan_ != nullptr && !vxlan_port_given_)
            add({{.source = {Load::transport, 2, 2}, .value = Bytes(vxlan_udp_port, 2)}}, *vxlan_);
        Compiled compiled{.directions = directions_, .unless_default = deeds_.unless_default()};
        Refusal refusal = deeds_.check();
        for (size_t at = 0; at < alternatives_.size() && refusal.status == Status::ok; ++at)
            refusal = append(std::move(alternatives_[at]), compiled.rules);
        if (refusal.status == Status::ok && compiled.rules.empty())
            refusal = none_;
        if (refusal.status == Status::ok)
            refusal = deeds_.check_writes();
        if (refusal.status != Status::ok)
            return {.status = refusal.status, .text = std::move(refusal.text)};
        if (elsewhere_ || !deeds_.installed())
            compiled.rules.clear();
        return compiled;
    }

    // The rules of one alternative; none, and why in none_, when it is impossible.
    Refusal append(std::vector<Sought> alternative, std::vector<Rule> &rules)
    {
        const auto behind = std::find_if(alternative.begin(), alternative.end(),
                                         [](const Sought &sought) { return double_tagged(sought.test); });
        if (behind != alternative.end() && !config_.double_tagged) {
            none_ = refuse(Status::unsupported, *behind->by, "frames with two tags do not come this far");
            return {};
        }
        if (behind != alternative.end()) {
            Refusal refusal = look_behind_tags(alternative);
            if (refusal.status != Status::ok)
                return refusal;
        }
        const Settled settled = settle(alternative);
        if (!settled.possible()) {
            none_ = exclude_each_other(*settled.one, *settled.other);
            return {};
        }
        if (settled.tests.size() > most_tests)
            return {Status::unsupported, "too many tests"};
        deeds_.append(alternative, settled.tests, rules);
        return {};
    }

    // Behind two tags the kernel knows no protocol and looks for no headers: they are at fixed places of the frame.
    static Refusal look_behind_tags(std::vector<Sought> &alternative)
    {
        for (auto &[test, by] : alternative) {
            Source &source = test.source;
            if (source.load == Load::l4proto || source.load == Load::transport || source.load == Load::extension)
                return refuse(Status::unsupported, *by, "behind two tags no transport header is looked for");
            if (source.load == Load::protocol)
                source = {Load::link, 2, behind_two_tags - 2};
            else if (source.load == Load::network)
                source = {Load::link, source.size, static_cast<uint16_t>(behind_two_tags + source.offset)};
        }
        return {};
    }

    const Config &config_;
    Deeds deeds_;
    std::vector<std::vector<Sought>> alternatives_{1}; // one of which a frame must pass
    const Form *vxlan_ = nullptr;                      // an attribute that looks inside VXLAN
    bool vxlan_port_given_ = false;
    bool elsewhere_ = false; // about a port of another node
    uint8_t directions_ = ingress | egress;
    Refusal none_; // why the last alternative without rules has none
};

} // namespace

Compiled compile(const Requested &entry, const Config &config)
{
    return Compiler(config).run(entry);
}

bool supports(const Form &form, const Config &config)
{
    if (form.cls != FP_UDP_ATTR_FIELD)
        return Deeds::knows(form, config);
    const Field *field = field_of(form);
    if (field == nullptr)
        return false;
    return field->meaning != Meaning::user_defined || config.udf[static_cast<size_t>(field->name.back() - '1')];
}

Rule double_tagged_drop()
{
    Rule rule;
    add_guard(Guard::double_tagged, rule.tests);
    rule.verdict = Verdict::drop;
    return rule;
}

std::string counter_name(uint32_t counter)
{
    return "c" + std::to_string(counter);
}

std::string meter_name(uint32_t meter, const Rate &rate)
{
    return "m" + std::to_string(meter) + '.' + std::to_string(rate.per_second) + '.' + std::to_string(rate.burst) +
           (rate.bytes ? ".bytes" : "");
}

} // namespace plx::plane::packet
