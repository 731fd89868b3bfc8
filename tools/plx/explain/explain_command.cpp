// `plx explain`: which entries decide about a frame at a port, of which some fields are known or all bytes, and where
// they are programmed.
#include "attribute_value.hpp"
#include "commands.hpp"
#include "display.hpp"
#include "explain/capture.hpp"
#include "explain/judge.hpp"
#include "explain/standings.hpp"
#include "nodes/node_watch.hpp"
#include "output.hpp"
#include "record_options.hpp"

#include <fstream>
#include <iostream>
#include <memory>
#include <plx/s_policy.pb-c.h>

namespace plx::tool {

namespace {

using plane::packet::Verdict;

constexpr size_t most_looks = 32; // at entries of an ACL that a node does not have

struct ExplainOptions : StoreOptions {
    uint32_t port = 0;
    std::vector<std::string> in, out;
    bool outwards = false;
    std::string file; // instead of the store
    std::string capture;
    uint64_t number = 1;
    bool all = false;

    uint32_t direction() const { return outwards ? 1 : 0; }
    const std::vector<std::string> &fields() const { return outwards ? out : in; }
};

// What an ACL does: the entry that decides, and those in front of it that may.
struct Course {
    const SceneEntry *decider = nullptr;
    std::vector<const SceneEntry *> maybe;
    std::set<Verdict> verdicts; // that are possible
};

std::string word_of(const std::set<Verdict> &verdicts)
{
    return verdicts.size() > 1 ? "depends" : std::string(verdict_word(*verdicts.begin()));
}

// What comes of an ACL behind others, which may have dropped the frame.
std::set<Verdict> behind(const std::set<Verdict> &before, const std::set<Verdict> &now)
{
    std::set<Verdict> together;
    for (const Verdict first : before)
        for (const Verdict second : now)
            together.insert(first == Verdict::accept ? second : first);
    return together;
}

// What becomes of the frame on a node, and what made it another than the policy's.
struct Fate {
    std::set<Verdict> verdicts;
    std::string by{};
};

// What an ACL does on a node: how the entry that decides stands there, and what decides in its place where it is not.
struct Local {
    Standing standing{};
    std::optional<uint64_t> sn{}; // of that entry
    std::string state{}, by{};
    std::set<Verdict> verdicts{Verdict::accept};
    bool settled = false;
};
using Locals = std::map<NodeName, Local>;

using Entries = std::set<const SceneEntry *>;

class ExplainRun {
  public:
    explicit ExplainRun(const ExplainOptions &options) : options_(options) {}
    int run();

  private:
    int read();
    int read_store();
    std::optional<Subject> subject(std::string &error);
    bool pack_fields(std::vector<uint8_t> &packed, std::string &error) const;
    int judge_all(const Subject &subject);
    Course judge_acl(const SceneAcl &acl, const Subject &subject, const Entries &without, bool told);
    void tell_acl(const SceneAcl &acl) const;
    void tell_entry(const SceneAcl &acl, const SceneEntry &entry, const Judgement &judgement) const;
    int ask_nodes(const SceneAcl &acl, const Subject &subject);
    int ask(const Key &key, const Requested &wanted, Locals &locals);
    int follow(const SceneAcl &acl, const Subject &subject, Locals &locals);
    static void decide(const SceneAcl &acl, const SceneEntry *decider, size_t looks, const Course &course,
                       Local &local);
    void settle(const SceneAcl &acl, const NodeName &name, const Local &local);
    void tell_verdict(const std::string &verdict) const;
    void tell_counter(const SceneAcl &acl, const SceneEntry &entry) const;

    const ExplainOptions &options_;
    Numbers numbers_;
    Scene scene_;
    Context context_;
    std::set<NodeName> nodes_; // that have the port
    std::map<NodeName, Fate> fates_;
    std::optional<Questions> questions_;
    bool unanswered_ = false;
};

int ExplainRun::run()
{
    if (const int code = read(); code != EXIT_DONE)
        return code;
    for (const SceneAcl &acl : scene_.acls)
        for (const SceneEntry &entry : acl.entries)
            numbers_.mention(entry.wanted.value);
    numbers_.mention_port(options_.port);
    std::string error;
    const auto about = subject(error);
    if (!about)
        return output().error(options_.capture.empty() ? EXIT_USAGE : EXIT_BAD_FILE, error);
    return judge_all(*about);
}

int ExplainRun::read()
{
    if (options_.file.empty())
        return read_store();
    Errors errors;
    const auto policy = read_policy(options_.file, errors);
    plx::tool::tell(errors, options_.file);
    if (!policy)
        return EXIT_BAD_FILE;
    scene_ = scene_of(*policy, options_.port, options_.direction());
    return EXIT_DONE;
}

int ExplainRun::read_store()
{
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    if (context_ == nullptr)
        return exit_code;
    size_t unreadable = 0;
    int result = read_scene(context_.get(), options_.db, options_.port, options_.direction(), scene_, unreadable);
    std::map<NodeName, NodeReport> reports;
    if (result == 0)
        result = read_nodes(context_.get(), options_.db, nodes_);
    if (result == 0)
        result = read_reports(context_.get(), options_.db, reports);
    for (const auto &[name, report] : reports)
        if (!report.ports.empty() && std::ranges::find(report.ports, options_.port) == report.ports.end())
            nodes_.erase(name);
    if (result != 0)
        return tell_store_error("store", result);
    if (unreadable != 0)
        return output().error(EXIT_SOME_FAILED,
                              std::to_string(unreadable) + " records cannot be read: nothing can be said of this port");
    return EXIT_DONE;
}

// ---- the frame ------------------------------------------------------------------------------------------------------

std::optional<Subject> ExplainRun::subject(std::string &error)
{
    if (options_.capture.empty()) {
        std::vector<uint8_t> packed;
        if (!pack_fields(packed, error))
            return std::nullopt;
        numbers_.mention(packed);
        return Subject::of_fields(packed, options_.port, options_.direction(), numbers_.config(), error);
    }
    std::ifstream file(options_.capture, std::ios::binary);
    if (!file) {
        error = file_error(options_.capture);
        return std::nullopt;
    }
    std::vector<uint8_t> frame = read_frame(file, options_.number, error);
    if (!error.empty()) {
        error = options_.capture + ": " + error;
        return std::nullopt;
    }
    plane::packet::Frame whole{.bytes = frame, .input = {}, .output = {}};
    if (matches(plane::packet::double_tagged_drop(), whole))
        output().note("the frame has two tags: a node of the Linux kernel drops it unless it runs with "
                      "--double-tagged pass");
    return Subject::of_frame(std::move(frame), options_.port, options_.direction());
}

std::string unknown_field(const std::string &name)
{
    std::vector<std::string_view> names;
    for (const Form &form : forms())
        if (form.cls == FP_UDP_ATTR_FIELD)
            names.push_back(form.name);
    const std::string_view close = nearest(name, names);
    return "there is no match attribute " + tool::quoted(name) +
           (close.empty() ? "" : "; did you mean '" + std::string(close) + "'?");
}

bool ExplainRun::pack_fields(std::vector<uint8_t> &packed, std::string &error) const
{
    for (const std::string &field : options_.fields()) {
        const size_t equals = std::min(field.find('='), field.size());
        const std::string name = field.substr(0, equals);
        const Form *form = find_form(FP_UDP_ATTR_FIELD, name);
        if (equals == field.size())
            error = tool::quoted(field) + " is not FIELD=VALUE";
        else if (form == nullptr)
            error = unknown_field(name);
        if (!error.empty())
            return false;
        const Encoding encoding = encode(*form, std::string_view(field).substr(equals + 1));
        if (!encoding.error.empty()) {
            error = name + ": " + encoding.error;
            return false;
        }
        const uint32_t header[2] = {attribute_id(*form) << 8U | FP_UDP_ATTR_FIELD,
                                    static_cast<uint32_t>(encoding.bytes.size())};
        const auto *bytes = reinterpret_cast<const uint8_t *>(header);
        packed.insert(packed.end(), bytes, bytes + sizeof header);
        packed.insert(packed.end(), encoding.bytes.begin(), encoding.bytes.end());
    }
    return true;
}

// ---- the ACLs -------------------------------------------------------------------------------------------------------

int ExplainRun::judge_all(const Subject &subject)
{
    const std::string where =
        "port " + std::to_string(options_.port) + ' ' + std::string(direction_name(options_.direction()));
    const size_t count = scene_.acls.size();
    if (!output().json())
        std::cout << where << ", " << count << (count == 1 ? " ACL\n" : " ACLs\n");
    std::set<Verdict> verdicts{Verdict::accept};
    if (scene_.off) {
        output().note("the port is off: every frame is dropped, whatever the ACLs say");
        verdicts = {Verdict::drop};
    }
    for (const NodeName &name : nodes_)
        fates_[name] = {verdicts};
    for (const SceneAcl &acl : scene_.acls) {
        tell_acl(acl);
        const Course course = judge_acl(acl, subject, {}, true);
        if (course.decider != nullptr && context_ != nullptr)
            tell_counter(acl, *course.decider);
        if (const int code = ask_nodes(acl, subject); code != EXIT_DONE)
            return code;
        verdicts = behind(verdicts, course.verdicts);
    }
    tell_verdict(word_of(verdicts));
    return unanswered_ ? EXIT_NO_ANSWER : EXIT_DONE;
}

// "deny on 0/1/0; permit on 0/2/0, by acl 1 sn 9999 'rest'" where nodes differ.
void ExplainRun::tell_verdict(const std::string &verdict) const
{
    std::map<std::pair<std::string, std::string>, NodeWatch::Names> nodes; // by what becomes of the frame, and why
    Row &summary = output().summary();
    summary["verdict"] = verdict;
    bool differ = false;
    for (const auto &[name, fate] : fates_) {
        const std::string word = word_of(fate.verdicts);
        differ = differ || word != verdict;
        nodes[{word, word == verdict ? "" : fate.by}].push_back(text_of(name));
        summary["nodes"][text_of(name)] = word;
    }
    std::string text = differ ? "" : verdict;
    for (const auto &[what, names] : nodes) {
        if (!differ)
            break;
        text.append(text.empty() ? "" : "; ").append(what.first).append(" on ").append(listed(names));
        text.append(what.second.empty() ? "" : ", ").append(what.second);
    }
    if (!output().json())
        std::cout << "verdict: " << text << '\n';
}

// `without`: entries that are not there.
Course ExplainRun::judge_acl(const SceneAcl &acl, const Subject &subject, const Entries &without, bool told)
{
    Course course;
    const bool has_default = !acl.entries.empty() && acl.entries.back().is_default;
    for (const SceneEntry &entry : acl.entries) {
        if (without.contains(&entry))
            continue;
        const Judgement judgement = judge(entry, has_default, subject, numbers_.config());
        if (told && (judgement.truth != Truth::no || options_.all))
            tell_entry(acl, entry, judgement);
        if (judgement.truth == Truth::no)
            continue;
        course.verdicts.insert(judgement.verdict);
        if (judgement.metered)
            course.verdicts.insert(Verdict::drop);
        if (judgement.truth == Truth::yes) {
            course.decider = &entry;
            return course;
        }
        course.maybe.push_back(&entry);
    }
    course.verdicts.insert(Verdict::accept);
    if (told && !output().json())
        std::cout << "    " << (course.maybe.empty() ? "no entry matches" : "none of the others matches")
                  << ": the frame passes this ACL\n";
    return course;
}

void ExplainRun::tell_acl(const SceneAcl &acl) const
{
    output().line("acl", {{"app", acl.app}, {"acl", acl.id}, {"name", acl.name}, {"priority", acl.priority}});
    if (!output().json())
        std::cout << "  acl " << acl.id << (acl.name.empty() ? "" : ' ' + printable(acl.name)) << " of "
                  << printable(acl.app) << " (priority " << acl.priority << ")\n";
}

void ExplainRun::tell_entry(const SceneAcl &acl, const SceneEntry &entry, const Judgement &judgement) const
{
    static constexpr const char *words[] = {"no", "depends", "yes"};
    static constexpr const char *texts[] = {"does not match: ", "would depend on ", "matches "};
    const auto truth = static_cast<size_t>(judgement.truth);
    const bool matters = judgement.truth != Truth::no;
    const std::string verdict = matters ? std::string(verdict_word(judgement.verdict)) : "";
    Row row = {{"app", acl.app},     {"acl", acl.id},           {"sn", entry.sn},
               {"name", entry.name}, {"matches", words[truth]}, {"why", judgement.why}};
    if (matters)
        row.update({{"verdict", verdict}, {"metered", judgement.metered}});
    output().line("entry", std::move(row));
    if (!output().json())
        std::cout << "    " << entry_label(entry.sn, entry.name) << (entry.is_default ? ", the default entry, " : " ")
                  << texts[truth] << printable(judgement.why) << (matters ? " -> " + verdict : "")
                  << (matters && judgement.metered ? ", and deny above the meter's rate" : "") << '\n';
}

// ---- the nodes ------------------------------------------------------------------------------------------------------

int ExplainRun::ask(const Key &key, const Requested &wanted, Locals &locals)
{
    std::set<NodeName> nodes;
    for (const auto &[name, local] : locals)
        if (!local.settled)
            nodes.insert(name);
    Standings standings;
    int result = 0;
    if (!questions_)
        result = questions_.emplace(context_.get(), options_.db).start();
    if (result == 0)
        result = ask_standings(*questions_, key, wanted, nodes, standings);
    if (result != 0)
        return tell_store_error("the nodes cannot be asked", result);
    for (auto &[name, standing] : standings)
        locals[name].standing = std::move(standing);
    return EXIT_DONE;
}

// Whether the ACL is applied on a node, whether the entry that decides is programmed there, and else what does decide.
int ExplainRun::ask_nodes(const SceneAcl &acl, const Subject &subject)
{
    Locals locals;
    for (const NodeName &name : nodes_)
        locals[name] = {};
    if (locals.empty())
        return EXIT_DONE;
    if (const int code = ask(acl.apply, acl.applied, locals); code != EXIT_DONE)
        return code;
    for (auto &[name, local] : locals) {
        local.settled = !local.standing.programmed;
        if (!local.settled)
            continue;
        local.state = local.standing.known ? "the ACL is not applied: " + local.standing.text : local.standing.text;
        local.by = local.standing.known ? "where acl " + std::to_string(acl.id) + " is not applied" : "";
    }
    const int code = follow(acl, subject, locals);
    for (const auto &[name, local] : locals)
        settle(acl, name, local);
    return code;
}

// What the look so many says of a node: `decider` decides there, if it is programmed, or nothing does.
void ExplainRun::decide(const SceneAcl &acl, const SceneEntry *decider, size_t looks, const Course &course,
                        Local &local)
{
    if (looks == 0 && decider != nullptr) {
        local.state = local.standing.text;
        local.sn = decider->sn;
    }
    local.settled = decider == nullptr || !local.standing.known || local.standing.programmed;
    local.verdicts = looks < most_looks ? course.verdicts : std::set{Verdict::accept, Verdict::drop};
    const std::string name = "acl " + std::to_string(acl.id);
    if (looks != 0)
        local.by = decider == nullptr ? "where no other entry of " + name + " matches"
                                      : "by " + name + ' ' + entry_label(decider->sn, printable(decider->name));
}

// Each look leaves the nodes open that do not have the entry, and goes on without it.
int ExplainRun::follow(const SceneAcl &acl, const Subject &subject, Locals &locals)
{
    const auto open = [&] {
        return std::ranges::any_of(locals, [](const auto &each) { return !each.second.settled; });
    };
    Entries without;
    for (size_t looks = 0; open(); ++looks) {
        const Course course = judge_acl(acl, subject, without, false);
        const SceneEntry *decider = looks < most_looks ? course.decider : nullptr;
        if (decider != nullptr)
            if (const int code = ask(AceKey{acl.app, acl.id, decider->sn}, decider->wanted, locals); code != EXIT_DONE)
                return code;
        for (auto &[name, local] : locals)
            if (!local.settled)
                decide(acl, decider, looks, course, local);
        if (decider != nullptr)
            without.insert(decider);
    }
    return EXIT_DONE;
}

// Of a node that does not answer nothing is said, nor is it asked again.
void ExplainRun::settle(const SceneAcl &acl, const NodeName &name, const Local &local)
{
    Fate &fate = fates_[name];
    fate.verdicts = behind(fate.verdicts, local.verdicts);
    if (!local.by.empty())
        fate.by = local.by;
    if (!local.standing.known) {
        unanswered_ = true;
        fates_.erase(name);
        nodes_.erase(name);
    }
    if (local.state.empty())
        return;
    Row row = {{"node", text_of(name)}, {"app", acl.app}, {"acl", acl.id}};
    if (local.sn)
        row["sn"] = *local.sn;
    row["state"] = local.state;
    if (!local.by.empty())
        row["verdict"] = word_of(local.verdicts);
    output().line("node", std::move(row));
    if (!output().json())
        std::cout << "      node " << text_of(name) << ": " << local.state
                  << (local.by.empty() ? "" : "; there the verdict is " + word_of(local.verdicts)) << '\n';
}

void ExplainRun::tell_counter(const SceneAcl &acl, const SceneEntry &entry) const
{
    const Key key = AceKey{acl.app, acl.id, entry.sn};
    const Record wanted(s_policy__ace_counter__descriptor, key);
    const Found found(tq_mom_hgetall_sync(context_.get(), options_.db, wanted.message()));
    if (found != nullptr && found->record != nullptr) {
        const uint64_t packets = number_field(found->record, "counter_pkt");
        const uint64_t bytes = number_field(found->record, "counter_byte");
        output().line("counter",
                      {{"app", acl.app}, {"acl", acl.id}, {"sn", entry.sn}, {"packets", packets}, {"bytes", bytes}});
        if (!output().json())
            std::cout << "      " << packets << " packets, " << bytes << " bytes\n";
    }
}

} // namespace

void add_explain_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App *command =
        app.add_subcommand("explain", "Tell which entries decide about a frame at a port, and where they are "
                                      "programmed: of a frame in a capture, or of one of which some fields are known.");
    command->add_option("--port", options->port, "the switch port")->required();
    auto *in = command->add_option("--in", options->in, "FIELD=VALUE ...: coming in, and what is known of it")
                   ->expected(0, 256);
    auto *out = command->add_option("--out", options->out, "FIELD=VALUE ...: going out, and what is known of it")
                    ->expected(0, 256)
                    ->excludes(in);
    command->add_option("--pcap", options->capture, "a capture that has the frame");
    command->add_option("-n", options->number, "the frame's number in the capture, from 1")
        ->check(CLI::Range(uint64_t{1}, UINT64_MAX))
        ->capture_default_str();
    command->add_option("--file", options->file, "a policy file, in place of the store; - for standard input");
    command->add_flag("--all", options->all, "show why each earlier entry does not match, too");
    options->add_to(*command);
    command->footer("Examples:\n"
                    "  plx explain --port 49 --in etype=ipv4 ipv4_src=10.1.2.3 ipv4_proto=tcp dst_l4port=443\n"
                    "  plx explain --port 49 --pcap frames.pcap -n 7 --file policy.yaml --all");
    command->callback([options, out, &exit_code] {
        output().begin("explain", options->json);
        options->outwards = out->count() != 0;
        if (!options->capture.empty() && !options->fields().empty())
            throw CLI::ValidationError("--pcap tells the fields: --in and --out take none beside it");
        exit_code = ExplainRun(*options).run();
    });
}

} // namespace plx::tool
