// Verbs of scenarios about text alone: keys as people see them, and addresses; what forged text must not get past.
#include "text_verbs.hpp"

#include "mom/key_text.hpp"
#include "mom/redis_reply.hpp"
#include "mom/url.hpp"
#include "mom/wire.hpp"
#include "record_text.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <plx/s_policy.pb-c.h>
#include <tq_context.h>
#include <tq_mom.h>

namespace {

const mom::field_span ace_fields{s_policy__ace_key__descriptor.fields, s_policy__ace_key__descriptor.n_fields};

std::string text_of_key(const std::string &record)
{
    const text_record ace(record, {});
    std::string text;
    const auto *index = reinterpret_cast<const SPolicy__Ace *>(ace.message())->index;
    mom::append_key_text(text, ace_fields, &index->base, ace_fields.size());
    return text;
}

std::string parts_of_address(const std::string &text)
{
    const auto url = mom::parse_store_url(text);
    if (!url) {
        EXPECT_TRUE(text.empty() || (tq_context_new(text.c_str()) == nullptr && errno == EINVAL));
        return "no address";
    }
    std::string parts = std::to_string(static_cast<int>(url->scheme)) + " " + url->name + " as " + url->server.user +
                        ":" + url->server.password + " " + url->server.password_file + " timeout " +
                        std::to_string(url->timeout_ms) + " log " + std::to_string(url->log_limit.value_or(0)) + "/" +
                        std::to_string(url->log_memory.value_or(0));
    for (const auto &host : url->hosts)
        parts += " at " + host.host + " " + std::to_string(host.port);
    if (!url->sentinels.empty())
        parts += " asking as " + url->sentinels.user + " " + url->sentinels.password_file;
    if (url->tls)
        parts += " by TLS as " + url->server_name + ": " + url->files.ca + " " + url->files.cert + " " + url->files.key;
    if (url->wait_replicas > 0)
        parts += " waiting for " + std::to_string(url->wait_replicas) + " " + std::to_string(url->wait_ms) + " ms";
    return parts + (url->spin_us == 0 ? " without spinning" : "");
}

} // namespace

std::string text_verb(const std::string &verb, const std::string &word)
{
    std::string wire;
    if (verb == "key")
        return mom::append_key_wire(wire, ace_fields, word) ? "= " + (wire.empty() ? "nothing" : escaped(wire))
                                                            : "no key";
    if (verb == "text")
        return text_of_key(word);
    if (verb == "field_6")
        return mom::holds_only_field(unescaped(word), 6) ? "= yes" : "= no";
    if (verb == "address")
        return parts_of_address(word);
    if (verb == "error")
        return "= " + std::to_string(mom::result_of_error(unescaped(word)));
    return verb == "result" ? tq_mom_strerror(std::stoi(word)) : "";
}
