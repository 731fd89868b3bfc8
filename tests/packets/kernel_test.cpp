// Random entries and random frames: the interpreter says what the kernel does. PLX_SEED repeats a run, PLX_ROUNDS
// makes it longer.
#include "packets/entry.hpp"
#include "packets/frames.hpp"
#include "packets/testbed.hpp"
#include "tools/plx/explain/knowledge.hpp"

namespace plx {
namespace {

using namespace plane::packet;
using test::Testbed;

// What draws at random draws less often where each step is slow.
#ifdef PLX_UNDER_SANITIZER
constexpr size_t thinned = 8;
#else
constexpr size_t thinned = 1;
#endif

unsigned long from_environment(const char *name, unsigned long otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : strtoul(text, nullptr, 0);
}

std::vector<uint8_t> any_value(std::mt19937 &random, const Form &form)
{
    const size_t size = form.bytes();
    std::string text = form.kind == ValueKind::mac                                          ? test::any_mac(random)
                       : form.kind == ValueKind::ipv4                                       ? test::any_ipv4(random)
                       : form.kind == ValueKind::ipv6 || form.kind == ValueKind::ipv6_upper ? test::any_ipv6(random)
                                                                                            : "";
    std::vector<uint8_t> bytes = test::address_of(text);
    if (text.empty()) {
        const uint64_t number = test::any_number(random, form.bits);
        for (size_t at = size; at-- > 0;)
            bytes.push_back(static_cast<uint8_t>(number >> 8 * std::min<size_t>(at, 7)));
    }
    bytes.resize(size);
    if (form.kind == ValueKind::range &&
        std::equal(bytes.begin(), bytes.begin() + 2, bytes.begin() + 2, std::greater<>()))
        std::swap_ranges(bytes.begin(), bytes.begin() + 2, bytes.begin() + 2);
    if (!form.mask || random() % 3 != 0)
        return bytes;
    std::vector<uint8_t> mask(size);
    for (size_t at = 0; at < size; ++at) {
        mask[at] = std::array<uint8_t, 6>{0xff, 0xff, 0xff, 0, 0x0f, 0xf8}[random() % 6];
        bytes[at] &= mask[at];
    }
    bytes.insert(bytes.end(), mask.begin(), mask.end());
    return bytes;
}

// An entry that is about a frame, more or less.
Requested any_entry(std::mt19937 &random, const Frame &frame, const Config &config)
{
    Requested entry;
    for (size_t left = 1 + random() % 5; left > 0; --left) {
        const bool any = random() % 4 == 0;
        for (size_t tries = 40; tries > 0; --tries) {
            const Form &form = forms()[random() % forms().size()];
            Requested more = entry;
            if (form.cls == FP_UDP_ATTR_FIELD)
                test::push(more, form, any_value(random, form));
            const Compiled compiled = compile(more, config);
            if (compiled.status != Status::ok || (!any && interpret(compiled.rules, frame).matched.empty()))
                continue;
            entry = more;
            break;
        }
    }
    return entry;
}

void add_actions(std::mt19937 &random, Requested &entry, const Config &config)
{
    static constexpr const char *likely[] = {"fwd=deny",     "redirect=3",  "mirror=3",       "mirror_id=7",
                                             "counter=7",    "cos=3",       "vid=77",         "ipv4_tos=0xff",
                                             "ipv4_dscp=ef", "ipv4_prec=0", "ipv6_tc=0x5a",   "mpls_exp=6",
                                             "prio_in=5",    "snoop_id=4",  "stat_sampling=1"};
    for (size_t left = random() % 4; left > 0; --left) {
        Requested more = entry;
        const Requested action = test::entry_of("-> " + std::string(likely[random() % std::size(likely)]));
        more.value.insert(more.value.end(), action.value.begin(), action.value.end());
        if (compile(more, config).status == Status::ok)
            entry = more;
    }
}

bool reaches_rules(const std::vector<uint8_t> &bytes)
{
    const bool tagged = bytes.size() > 13 && (bytes[12] << 8 | bytes[13]) != 0 &&
                        ((bytes[12] << 8 | bytes[13]) == 0x8100 || (bytes[12] << 8 | bytes[13]) == 0x88a8);
    return bytes.size() >= (tagged ? 20U : 14U);
}

class Kernel : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!Testbed::missing().empty())
            GTEST_SKIP() << Testbed::missing();
    }

    // One entry, some frames: whether both say the same about each, and count the same.
    void compare(bool egress)
    {
        Frame frame = any_frame(egress);
        Requested entry = any_entry(random_, frame, config_);
        add_actions(random_, entry, config_);
        SCOPED_TRACE((egress ? "egress " : "ingress ") + test::text_of(entry));
        const Compiled compiled = compile(entry, config_);
        const uint8_t direction = egress ? plane::packet::egress : ingress;
        if ((compiled.directions & direction) == 0)
            return;
        ASSERT_EQ("", Testbed::get().load(compiled.rules, egress));
        std::vector<uint64_t> hits(compiled.rules.size());
        for (size_t left = 6; left > 0; --left) {
            const Outcome outcome = interpret(compiled.rules, frame);
            for (const size_t at : outcome.matched)
                hits[at] += compiled.rules[at].counted ? 1 : 0;
            shared_ += std::count(outcome.done.begin(), outcome.done.end(), Action(CountOn{7}));
            matched_ += outcome.matched.empty() ? 0 : 1;
            EXPECT_EQ("", Testbed::difference(frame, outcome, Testbed::get().send(frame))) << text_;
            frame = any_frame(egress);
        }
        EXPECT_EQ(hits, Testbed::get().hits(egress)) << text_;
        all_.insert(all_.end(), compiled.rules.begin(), compiled.rules.end());
    }

    // nft(8) ends on an assertion at some rules that others, it among them, can load.
    void expect_listing()
    {
        ASSERT_EQ("", Testbed::get().load(all_, false));
        EXPECT_EQ("", Testbed::get().listing(false));
        EXPECT_EQ("", Testbed::get().listing(true));
    }

    Frame any_frame(bool egress)
    {
        Frame frame{.bytes = {}, .input = egress ? "" : "t1", .output = egress ? "e0" : ""};
        while (!reaches_rules(frame.bytes)) {
            text_ = test::any_frame(random_);
            frame.bytes = test::frame_of(text_);
        }
        frame.mark = static_cast<uint32_t>(test::any_number(random_, 32));
        frame.sampled = true;
        return frame;
    }

    unsigned long seed_ = from_environment("PLX_SEED", 1);
    std::mt19937 random_{static_cast<uint32_t>(seed_)};
    Config config_ = test::configuration();
    std::string text_; // of the last frame
    std::vector<Rule> all_;
    size_t matched_ = 0;
    std::ptrdiff_t shared_ = 0; // hits on the shared counter
};

// The entries of all transcripts.
std::vector<std::string> known_entries()
{
    std::vector<std::string> entries;
    for (const auto &file : std::filesystem::directory_iterator(PLX_TRANSCRIPTS)) {
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("entry "))
                entries.push_back(line.substr(5) + ' ');
        }
    }
    return entries;
}

// An entry without attributes for a line that shows what cannot be read.
Requested entry_or_none(const std::string &text)
{
    try {
        return test::entry_of(text);
    } catch (const std::invalid_argument &) {
        return {};
    }
}

TEST(Names, are_acted_on_in_a_transcript_or_refused)
{
    const std::vector<std::string> entries = known_entries();
    const Config config = test::configuration();
    size_t supported = 0;
    for (const Form &form : forms()) {
        const std::string name = std::string(form.cls == FP_UDP_ATTR_CTRL ? " !" : " ") + std::string(form.name) + '=';
        const auto uses = [&](const std::string &entry) {
            const size_t arrow = std::min(entry.find("->"), entry.size());
            const bool field = form.cls == FP_UDP_ATTR_FIELD;
            return (field ? entry.substr(0, arrow) : entry.substr(arrow)).find(name) != std::string::npos &&
                   compile(entry_or_none(entry), config).status == Status::ok;
        };
        Requested alone;
        test::push(alone, form, std::vector<uint8_t>(form.bytes()));
        EXPECT_EQ(supports(form, config), compile(alone, config).status != Status::unsupported) << name;
        EXPECT_TRUE(!supports(form, config) || std::any_of(entries.begin(), entries.end(), uses)) << name;
        supported += supports(form, config) ? 1 : 0;
    }
    EXPECT_EQ(118U, supported);
    EXPECT_EQ(Status::unsupported, compile(test::entry_of("ace_udf1=00000000"), {}).status);
    EXPECT_EQ(Status::unsupported, compile(test::entry_of("-> stat_sampling=2"), {}).status);
    EXPECT_EQ(Status::unsupported, compile(test::entry_of("vid_in=2"), {}).status);
}

TEST(Names, that_the_operator_ignores_are_left_out)
{
    Config config = test::configuration();
    config.ignored = {find_form(FP_UDP_ATTR_ACTION, "ctrl_cos"), find_form(FP_UDP_ATTR_FIELD, "vid")};
    const Compiled compiled = compile(test::entry_of("vid=5 etype=arp -> ctrl_cos=3"), config);
    EXPECT_EQ(compile(test::entry_of("etype=arp"), config).rules, compiled.rules);
}

Requested any_field(std::mt19937 &random, const Config &config)
{
    Requested field;
    while (field.value.empty()) {
        const Form &form = forms()[random() % forms().size()];
        // The port of VXLAN tells the other fields where to look.
        if (form.cls == FP_UDP_ATTR_FIELD && supports(form, config) && form.name != "vxlan_udp_port")
            test::push(field, form, any_value(random, form));
    }
    return field;
}

// Whatever is left out of the tests of two fields, and whatever is taken for a contradiction.
TEST(Entry, matches_what_each_of_its_fields_matches)
{
    std::mt19937 random(static_cast<uint32_t>(from_environment("PLX_SEED", 1)));
    Config config = test::configuration();
    config.double_tagged = false; // behind two tags, fields are elsewhere
    size_t both = 0, contradictions = 0;
    for (size_t round = 0; round < 2000 / thinned; ++round) {
        const std::string text = test::any_frame(random);
        const Frame frame{.bytes = test::frame_of(text), .input = "t1", .output = "e0", .mark = 1};
        const auto hit = [&frame](const Compiled &by) { return !interpret(by.rules, frame).matched.empty(); };
        Requested entry;
        bool all = true;
        for (size_t left = 2; left > 0; --left) {
            Requested field;
            Compiled alone;
            for (size_t tries = random() % 2 == 0 ? 1 : 40; tries > 0 && !hit(alone); --tries) {
                field = any_field(random, config);
                alone = compile(field, config);
            }
            entry.value.insert(entry.value.end(), field.value.begin(), field.value.end());
            all = all && hit(alone);
        }
        const Compiled compiled = compile(entry, config);
        contradictions += compiled.status == Status::contradiction ? 1 : 0;
        both += all ? 1 : 0;
        ASSERT_EQ(all, hit(compiled)) << test::text_of(entry) << compiled.text << '\n' << text;
    }
    EXPECT_GT(both, 100U / thinned);
    EXPECT_GT(contradictions, 100U / thinned);
}

// What follows from some fields of a frame is true of the frame.
TEST(Knowledge, is_right_where_it_does_not_depend)
{
    std::mt19937 random(static_cast<uint32_t>(from_environment("PLX_SEED", 1)));
    Config config = test::configuration();
    config.double_tagged = false;
    std::map<tool::Truth, size_t> seen;
    for (size_t round = 0; round < 4000 / thinned; ++round) {
        const std::string text = test::any_frame(random);
        const Frame frame{.bytes = test::frame_of(text), .input = "t1", .output = "e0", .mark = 1};
        const Requested known = any_entry(random, frame, config);
        const Frame other{.bytes = test::frame_of(test::any_frame(random)), .input = "t1", .output = "e0"};
        const Requested entry = round % 8 == 0 ? known : any_entry(random, round % 2 == 0 ? frame : other, config);
        for (const Rule &given : compile(known, config).rules) {
            for (const Rule &rule : compile(entry, config).rules) {
                if (!matches(given, frame))
                    continue;
                const tool::Truth truth = tool::Knowledge(given.tests).judge(rule.tests);
                ++seen[truth];
                EXPECT_TRUE(truth == tool::Truth::depends || (truth == tool::Truth::yes) == matches(rule, frame))
                    << test::text_of(known) << '\n'
                    << test::text_of(entry) << '\n'
                    << text;
            }
        }
    }
    EXPECT_GT(seen[tool::Truth::yes], 100U / thinned);
    EXPECT_GT(seen[tool::Truth::no], 5U / thinned);
}

TEST_F(Kernel, lists_every_entry_of_the_transcripts)
{
    for (const std::string &entry : known_entries()) {
        const Compiled compiled = compile(entry_or_none(entry), config_);
        all_.insert(all_.end(), compiled.rules.begin(), compiled.rules.end());
    }
    all_.push_back(double_tagged_drop());
    expect_listing();
}

TEST_F(Kernel, does_what_the_interpreter_says)
{
    const unsigned long rounds = from_environment("PLX_ROUNDS", 200);
    for (unsigned long round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("PLX_SEED=" + std::to_string(seed_) + ", round " + std::to_string(round));
        compare(random_() % 4 == 0);
    }
    EXPECT_GT(matched_, rounds);
    EXPECT_THAT(Testbed::get().shared_counters(), testing::HasSubstr("packets " + std::to_string(shared_) + ' '));
    expect_listing();
}

} // namespace
} // namespace plx
