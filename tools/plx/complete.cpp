#include "complete.hpp"
#include "record_options.hpp"
#include "records/attribute.hpp"
#include "records/node_report.hpp"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <plx/s_policy.pb-c.h>
#include <set>
#include <sys/time.h>

namespace plx::tool {

namespace {

constexpr suseconds_t longest_us = 300'000;

using Words = std::vector<std::string>;

// The values in a description such as "TEXT:{in,out}".
Words listed(const std::string &description)
{
    Words values;
    const size_t open = description.find('{'), close = description.find('}', open);
    if (open == std::string::npos || close == std::string::npos)
        return values;
    for (size_t begin = open + 1; begin <= close;) {
        const size_t end = std::min(description.find(',', begin), close);
        values.push_back(description.substr(begin, end - begin));
        begin = end + 1;
    }
    return values;
}

Words match_attributes()
{
    Words names;
    for (const Form &form : forms())
        if (form.cls == FP_UDP_ATTR_FIELD)
            names.push_back(std::string(form.name) + '=');
    return names;
}

int32_t take_acl(void *, const tq_mom_notification *entry, void *arg)
{
    const auto *acl = reinterpret_cast<const SPolicy__Acl *>(entry->record);
    if (acl != nullptr && acl->index != nullptr && acl->index->t_app_type != nullptr)
        static_cast<std::set<std::pair<std::string, uint32_t>> *>(arg)->emplace(acl->index->t_app_type,
                                                                                acl->index->acl_id);
    return 0;
}

int32_t take_node_name(void *, const tq_mom_notification *entry, void *arg)
{
    if (const auto name = node_of(entry->record))
        static_cast<Words *>(arg)->push_back(text_of(*name));
    return 0;
}

// A store that does not answer at once ends the program, without a word.
void scan_store(const ProtobufCMessageDescriptor &table, tq_mom_callback take, void *found)
{
    const itimerval longest{{}, {0, longest_us}};
    std::signal(SIGALRM, [](int) { std::_Exit(0); });
    setitimer(ITIMER_REAL, &longest, nullptr);
    const char *store = std::getenv("PLX_STORE");
    const StoreOptions options;
    const Context context(tq_context_new(store == nullptr ? options.store.c_str() : store));
    const Record whole(table);
    if (context != nullptr && tq_mom_client_connect_sync(context.get(), options.db) == 0)
        tq_mom_scan_sync(context.get(), options.db, whole.message(), 0, take, found);
}

Words nodes_in_store()
{
    Words names;
    scan_store(s_policy__service_node__descriptor, &take_node_name, &names);
    return names;
}

// Application types, or the numbers of ACLs.
Words in_store(bool applications)
{
    std::set<std::pair<std::string, uint32_t>> acls;
    scan_store(s_policy__acl__descriptor, &take_acl, &acls);
    std::set<std::string> names;
    for (const auto &[app, acl] : acls)
        names.insert(applications ? app : std::to_string(acl));
    return {names.begin(), names.end()};
}

Words values_of(const CLI::Option &option)
{
    const std::string name = option.get_name(false, true);
    if (name.find("--in,") == 0 || name == "--in" || name == "--out")
        return match_attributes();
    if (name == "--app" || name == "--acl")
        return in_store(name == "--app");
    return listed(option.get_type_name());
}

Words options_of(const CLI::App &command)
{
    Words names;
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
        for (const std::string &name : option->get_snames())
            names.push_back('-' + name);
    }
    return names;
}

Words commands_of(const CLI::App &app)
{
    Words names;
    for (const CLI::App *command : app.get_subcommands(nullptr))
        names.push_back(command->get_name());
    return names;
}

Words words_of(const CLI::App &command)
{
    Words names = commands_of(command);
    if (command.get_name() == "forget")
        return nodes_in_store();
    if (command.get_name() == "show" || command.get_name() == "monitor")
        for (const Kind &kind : kinds())
            names.push_back(kind.name);
    return names;
}

const CLI::App *named(const CLI::App &app, const std::string &word)
{
    for (const CLI::App *command : app.get_subcommands(nullptr))
        if (command->get_name() == word)
            return command;
    return &app;
}

Words candidates(const CLI::App &app, const Words &words)
{
    const CLI::App *command = &app;
    const CLI::Option *open = nullptr; // an option that takes the next word
    for (size_t at = 0; at + 1 < words.size(); ++at) {
        const std::string &word = words[at];
        if (const CLI::App *below = named(*command, word); below != command) {
            command = below;
        } else if (word.starts_with('-')) {
            open = command->get_option_no_throw(word);
            open = open != nullptr && open->get_items_expected_max() > 0 ? open : nullptr;
        } else if (open != nullptr && open->get_items_expected_max() == 1) {
            open = nullptr;
        }
    }
    const std::string last = words.empty() ? "" : words.back();
    if (last.starts_with('-'))
        return options_of(*command);
    if (open != nullptr)
        return values_of(*open);
    return words_of(*command);
}

} // namespace

void complete(const CLI::App &app, std::span<char *const> given)
{
    const Words words(given.begin(), given.end());
    for (const std::string &candidate : candidates(app, words))
        if (words.empty() || candidate.starts_with(words.back()))
            std::cout << candidate << '\n';
}

} // namespace plx::tool
