// See record_options.hpp.
#include "record_options.hpp"

#include "field.hpp"
#include "output.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <plx/s_policy.pb-c.h>
#include <span>
#include <sstream>
#include <tq_topics.pb-c.h>

namespace plx::tool {

namespace {

// The names under which tables carry an application type, the ACL's number, and an entry's.
constexpr std::string_view app_fields[] = {"t_app_type", "app_type", "t_apply_type", "apply_type"};

uint64_t key_number(const ProtobufCMessage &key, const char *name, bool &has)
{
    const auto *field = find_field(*key.descriptor, name);
    has = field != nullptr;
    if (!has)
        return 0;
    return field->type == PROTOBUF_C_TYPE_UINT64 ? value_of<uint64_t>(key, *field) : value_of<uint32_t>(key, *field);
}

bool has_application(const ProtobufCMessage &key, const std::string &app)
{
    return std::any_of(std::begin(app_fields), std::end(app_fields), [&](std::string_view name) {
        const auto *field = find_field(*key.descriptor, name.data());
        const char *text = field == nullptr ? nullptr : value_of<const char *>(key, *field);
        return text != nullptr && app == text;
    });
}

} // namespace

const std::vector<Kind> &kinds()
{
    static const std::vector<Kind> all = {
        {"acl", {&s_policy__acl__descriptor}},
        {"ace", {&s_policy__ace__descriptor}, &s_policy__ace_psta__descriptor},
        {"apply", {&s_policy__apply__descriptor}, &s_policy__apply_psta__descriptor},
        {"port",
         {&s_policy__port_off__descriptor, &s_policy__port_off_psta__descriptor, &s_policy__uplink__descriptor,
          &s_policy__uplink_psta__descriptor, &s_policy__svi_router__descriptor, &s_policy__svi_router_psta__descriptor,
          &s_policy__port_bindinfo__descriptor, &s_policy__port_bindinfo_psta__descriptor}},
        {"node", {&s_policy__service_node__descriptor}},
        {"commit", {&s_policy__app_commit__descriptor}},
        {"topic", {&topics__topic__descriptor}},
        {"counters", {&s_policy__ace_counter__descriptor}},
    };
    return all;
}

const Kind *find_kind(const std::string &name)
{
    const auto kind = std::find_if(kinds().begin(), kinds().end(), [&](const Kind &k) { return k.name == name; });
    return kind == kinds().end() ? nullptr : &*kind;
}

void StoreOptions::add_to(CLI::App &command)
{
    command.add_option("--store", store, "address of the store: unix:/path, redis://host:port, rediss:// with TLS")
        ->envname("PLX_STORE")
        ->capture_default_str();
    command.add_option("--db", db, "number of the policy database")->capture_default_str();
    command.add_flag("--json", json, "one JSON object a line, for scripts");
}

void RecordOptions::add_to(CLI::App &command)
{
    StoreOptions::add_to(command);
    command.add_option("--app", app, "only records of this application type")->each([this](const std::string &) {
        by_app = true;
    });
    command.add_option("--acl", acl, "only records of the ACL with this number")->each([this](const std::string &) {
        by_acl = true;
    });
    command.add_option("--sn", sn, "only the entry with this sequence number")->each([this](const std::string &) {
        by_sn = true;
    });
    command.add_flag("--all", all, "columns that are between programs, too; with --json they are there in any case");
    command.add_flag("--full", full, "whole values, however long; else a value is cut, and said to be");
}

// A key with two application types is asked for by either.
bool RecordOptions::select(Record &record, uint32_t &given) const
{
    given = 0;
    const ProtobufCMessage *key = key_of(*record.message());
    if (key == nullptr)
        return false;
    const auto names_app = [](const ProtobufCFieldDescriptor &field) {
        return std::find(std::begin(app_fields), std::end(app_fields), std::string_view(field.name)) !=
               std::end(app_fields);
    };
    const std::span fields(key->descriptor->fields, key->descriptor->n_fields);
    const bool one_app = std::count_if(fields.begin(), fields.end(), names_app) == 1;
    for (const ProtobufCFieldDescriptor &field : fields) {
        const std::string_view name = field.name;
        if (by_app && one_app && names_app(field))
            record.set_key_text(given, app.c_str());
        else if (by_acl && name == "acl_id")
            record.set_key_number(given, acl);
        else if (by_sn && name == "sn")
            record.set_key_number(given, sn);
        else
            return false;
        ++given;
    }
    return true;
}

bool RecordOptions::take(const ProtobufCMessage *record) const
{
    const ProtobufCMessage *key = record == nullptr ? nullptr : key_of(*record);
    if (key == nullptr)
        return !by_app && !by_acl && !by_sn;
    bool has = false;
    return (!by_app || has_application(*key, app)) && (!by_acl || (key_number(*key, "acl_id", has) == acl && has)) &&
           (!by_sn || (key_number(*key, "sn", has) == sn && has));
}

std::string shown_address(const std::string &store)
{
    std::string address = store.substr(0, store.find('?'));
    const size_t scheme = address.find("://");
    const size_t at = address.rfind('@');
    if (scheme == std::string::npos || at == std::string::npos || at < scheme)
        return address;
    return address.substr(0, scheme + 3) + address.substr(at + 1);
}

static bool is_address(const std::string &store)
{
    return Context(tq_context_new(store.c_str())) != nullptr || errno != EINVAL;
}

// The first option that makes an address wrong; none where the address itself is, or two options do not go together.
static std::string wrong_option(const std::string &store)
{
    const size_t question = store.find('?');
    const std::string address = store.substr(0, question);
    if (question == std::string::npos || !is_address(address))
        return {};
    std::istringstream options(store.substr(question + 1));
    for (std::string option; std::getline(options, option, '&');)
        if (!is_address(std::string(address).append(1, '?').append(option)))
            return option;
    return {};
}

int tell_no_context(const std::string &store)
{
    const int error = errno;
    if (error == EINVAL) {
        const std::string option = wrong_option(store);
        return output().error(
            EXIT_USAGE, '\'' + shown_address(store) + "' is not the address of a store" +
                            (option.empty() ? "" : ": the option '" + option + "' is not known, or has no such value"));
    }
    return output().error(EXIT_UNREACHABLE, "store " + shown_address(store) + ": " + std::strerror(error));
}

int tell_store_error(const std::string &what, int result)
{
    return output().error(EXIT_UNREACHABLE, what + ": " + tq_mom_strerror(result), {}, tq_mom_advice(result));
}

Context open_store(const StoreOptions &options, int &exit_code)
{
    Context context(tq_context_new(options.store.c_str()));
    if (context == nullptr) {
        exit_code = tell_no_context(options.store);
    } else if (const int result = tq_mom_client_connect_sync(context.get(), options.db); result != 0) {
        exit_code = tell_store_error("store " + shown_address(options.store), result);
        context.reset();
    }
    return context;
}

} // namespace plx::tool
