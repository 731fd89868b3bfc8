// `plx import`: a policy made of other systems' rules, on standard output.
#include "commands.hpp"
#include "document.hpp"
#include "import/draft.hpp"
#include "output.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

namespace plx::tool {

namespace {

struct ImportOptions : import::Options {
    std::string kind, file;
    bool partial = false;
    bool json = false;
};

using Read = void (*)(std::istream &, const import::Options &, import::Draft &);
const std::map<std::string, Read> kinds_of_files = {{"iptables-save", &import::read_iptables},
                                                    {"nft-json", &import::read_nft},
                                                    {"cisco", &import::read_cisco},
                                                    {"cidr", &import::read_cidr}};

constexpr size_t most_told = 20;

void tell_all(const ImportOptions &options, const import::Draft &draft)
{
    for (const auto &refused : draft.refused())
        output().line("refusal", {{"file", options.file},
                                  {"line", refused.line},
                                  {"rule", refused.text},
                                  {"why", refused.why},
                                  {"without_it", !refused.permits   ? "unknown"
                                                 : *refused.permits ? "less"
                                                                    : "more"}});
    output().summary().update({{"entries", draft.entries()}, {"refused", draft.refused().size()}});
}

void tell(const ImportOptions &options, const import::Draft &draft)
{
    for (const std::string &note : draft.notes())
        output().note(note);
    if (options.json)
        return tell_all(options, draft);
    const auto &refused = draft.refused();
    for (size_t at = 0; at < std::min(refused.size(), most_told); ++at)
        output().warning(refused[at].why + "; " + refused[at].effect() + ": " + tool::quoted(refused[at].text),
                         {options.file, refused[at].line});
    if (refused.size() > most_told)
        output().note("and " + std::to_string(refused.size() - most_told) + " more that cannot be said");
}

void print(const ImportOptions &options, const import::Draft &draft)
{
    if (!options.json)
        return draft.print(std::cout, options);
    std::ostringstream text;
    draft.print(text, options);
    output().line("policy", {{"text", text.str()}});
}

int run(const ImportOptions &options)
{
    output().begin("import", options.json);
    std::ifstream file;
    if (options.file != "-")
        file.open(options.file, std::ios::binary);
    if (options.file != "-" && !file)
        return output().error(EXIT_BAD_FILE, std::strerror(errno), {options.file});
    import::Draft draft;
    std::istream &in = options.file == "-" ? std::cin : file;
    try {
        kinds_of_files.at(options.kind)(in, options, draft);
    } catch (const import::Unsaid &why) {
        return output().error(EXIT_BAD_FILE, why.what(), {options.file});
    }
    if (in.bad())
        return output().error(EXIT_BAD_FILE, file_error("cannot be read"), {options.file});
    tell(options, draft);
    if (!draft.refused().empty() && !options.partial)
        return output().error(EXIT_BAD_FILE, std::to_string(draft.refused().size()) +
                                                 " rules cannot be said; --partial makes a policy of the others");
    print(options, draft);
    return EXIT_DONE;
}

std::string no_port(const std::string &port)
{
    return port.empty() || port.find_first_not_of("0123456789-") != std::string::npos ? "no port or range" : "";
}

void keep_interfaces(const std::vector<std::string> &all, ImportOptions &options)
{
    for (const std::string &one : all)
        options.interfaces[one.substr(0, one.find('='))] = one.substr(one.find('=') + 1);
}

} // namespace

void add_import_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<ImportOptions>();
    CLI::App *command = app.add_subcommand("import", "Make a policy, on standard output, of other systems' rules.");
    command->add_option("FILE", options->file, "the rules; - for standard input")->required();
    command->add_option("--from", options->kind, "what kind of file it is")
        ->required()
        ->check(CLI::IsMember({"iptables-save", "nft-json", "cisco", "cidr"}));
    command->add_option("--app", options->app, "the policy's application type")
        ->required()
        ->check([](const std::string &name) {
            const bool plain =
                name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.") ==
                std::string::npos;
            return plain && !name.empty() && name.size() <= 31 ? "" : "at most 31 letters, digits, '_', '-' and '.'";
        });
    command->add_option("--acl", options->acl, "the ACL's number")->required();
    command->add_option("--port", options->port, "a port or a range of ports that the ACL is applied to")
        ->check(no_port);
    command->add_option("--direction", options->direction, "in which direction")
        ->check(CLI::IsMember({"in", "out"}))
        ->capture_default_str();
    command->add_option("--chain", options->chain, "iptables-save, nft-json: the chain to begin with");
    command
        ->add_option_function<std::vector<std::string>>(
            "--interface", [options](const std::vector<std::string> &all) { keep_interfaces(all, *options); },
            "cisco: NAME=PORT, the port that an interface is")
        ->allow_extra_args(false)
        ->check([](const std::string &text) {
            const size_t equals = text.find('=');
            return equals == text.npos || equals == 0 ? "no NAME=PORT" : no_port(text.substr(equals + 1));
        });
    command->add_option("--list", options->list, "cisco: the access list");
    command->add_option("--match", options->match, "cidr: what the addresses are")
        ->check(CLI::IsMember({"src", "dst"}))
        ->capture_default_str();
    command->add_option("--verdict", options->verdict, "cidr: what becomes of them")
        ->check(CLI::IsMember({"permit", "deny"}))
        ->capture_default_str();
    command
        ->add_option_function<std::string>(
            "--established-as", [options](const std::string &) { options->tcp_flags = true; },
            "what stands for connections that are established")
        ->check(CLI::IsMember({"tcp-flags"}));
    command->add_flag("--partial", options->partial, "leave out what cannot be said, and say so in comments");
    command->add_flag("--json", options->json, "one JSON object a line, the policy as the text of one");
    command->footer("Example:\n"
                    "  iptables-save | plx import --from iptables-save --chain INPUT --app edge --acl 10 --port 49 -");
    command->callback([options, &exit_code] { exit_code = run(*options); });
}

} // namespace plx::tool
