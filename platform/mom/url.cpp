// See url.hpp.
#include "url.hpp"

#include <charconv>
#include <sched.h>

namespace mom {
namespace {

constexpr uint16_t redis_port = 6379;
constexpr uint16_t sentinel_port = 26379;

template <typename Number> bool parse_number(std::string_view text, Number &value)
{
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    return parsed.ec == std::errc{} && parsed.ptr == text.data() + text.size();
}

int hex_value(char digit)
{
    int value = 0;
    return std::from_chars(&digit, &digit + 1, value, 16).ec == std::errc{} ? value : -1;
}

bool unescape(std::string_view text, std::string &out)
{
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        const int high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
        const int low = high >= 0 ? hex_value(text[i + 2]) : -1;
        if (low < 0 || (high == 0 && low == 0))
            return false;
        out.push_back(static_cast<char>(high << 4 | low));
        i += 2;
    }
    return true;
}

// The text before `mark`, which is taken off `text` together with the mark; all of it when there is none.
std::string_view take_until(std::string_view &text, char mark)
{
    const size_t at = text.find(mark);
    const auto head = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return head;
}

bool take_prefix(std::string_view &text, std::string_view prefix)
{
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

bool parse_login(store_url::login &login, std::string_view name, std::string_view value)
{
    if (name == "user")
        return unescape(value, login.user);
    return name == "password-file" && !value.empty() && unescape(value, login.password_file);
}

bool parse_tls(store_url &url, std::string_view name, std::string_view value)
{
    std::string *const part = name == "ca"            ? &url.files.ca
                              : name == "cert"        ? &url.files.cert
                              : name == "key"         ? &url.files.key
                              : name == "server-name" ? &url.server_name
                                                      : nullptr;
    return part != nullptr && unescape(value, *part) && !part->empty();
}

bool parse_option(store_url &url, std::string_view name, std::string_view value)
{
    if (name == "log")
        return parse_number(value, url.log_limit.emplace()) && url.log_limit != 0;
    if (name == "log-memory") {
        const bool whole = parse_number(value, url.log_memory.emplace()) && *url.log_memory <= UINT64_MAX >> 20;
        *url.log_memory <<= 20;
        return whole;
    }
    if (name == "timeout")
        return parse_number(value, url.timeout_ms) && url.timeout_ms > 0 && url.timeout_ms <= 3'600'000;
    if (name == "spin")
        return parse_number(value, url.spin_us) && url.spin_us <= 10'000;
    if (name == "wait")
        return parse_number(value, url.wait_replicas) && url.wait_replicas <= 1000;
    if (name == "wait-timeout")
        return parse_number(value, url.wait_ms) && url.wait_ms > 0;
    return parse_login(url.server, name, value) || parse_tls(url, name, value) ||
           (take_prefix(name, "sentinel-") && parse_login(url.sentinels, name, value));
}

bool parse_options(store_url &url, std::string_view options)
{
    while (!options.empty()) {
        auto value = take_until(options, '&');
        const auto name = take_until(value, '=');
        if (!parse_option(url, name, value))
            return false;
    }
    return true;
}

bool parse_endpoint(store_url &url, std::string_view text, uint16_t default_port)
{
    endpoint where{{}, default_port};
    if (text.ends_with(':')) // a port is missing, or an IPv6 address is not in brackets
        return false;
    if (text.starts_with('[')) { // an IPv6 address
        text.remove_prefix(1);
        if (text.find(']') == std::string_view::npos)
            return false;
        where.host = take_until(text, ']');
        if (!text.empty() && !text.starts_with(':'))
            return false;
        text.remove_prefix(text.empty() ? 0 : 1);
    } else {
        where.host = take_until(text, ':');
    }
    if (where.host.empty() || (!text.empty() && !parse_port(text, where.port)))
        return false;
    url.hosts.push_back(where);
    return true;
}

bool parse_credentials(store_url &url, std::string_view &text)
{
    const size_t at = text.rfind('@');
    if (at == std::string_view::npos)
        return true;
    auto password = text.substr(0, at);
    text.remove_prefix(at + 1);
    const auto user = take_until(password, ':');
    return unescape(user, url.server.user) && unescape(password, url.server.password);
}

bool parse_tcp(store_url &url, std::string_view text)
{
    url.scheme = store_scheme::tcp;
    if (!parse_credentials(url, text))
        return false;
    if (text.ends_with('/'))
        text.remove_suffix(1);
    return parse_endpoint(url, text, redis_port);
}

bool parse_sentinel(store_url &url, std::string_view text)
{
    url.scheme = store_scheme::sentinel;
    if (!parse_credentials(url, text))
        return false;
    auto hosts = take_until(text, '/');
    url.name = text;
    if (url.name.empty() || hosts.empty())
        return false;
    while (!hosts.empty())
        if (!parse_endpoint(url, take_until(hosts, ','), sentinel_port))
            return false;
    return true;
}

bool parse_address(store_url &url, std::string_view text)
{
    url.tls = text.starts_with("rediss://") || text.starts_with("sentinels://");
    if (take_prefix(text, url.tls ? "rediss://" : "redis://"))
        return parse_tcp(url, text);
    if (take_prefix(text, url.tls ? "sentinels://" : "sentinel://"))
        return parse_sentinel(url, text);
    if (take_prefix(text, "unix:")) {
        url.scheme = store_scheme::unix_socket;
        return text.starts_with('/') && unescape(text, url.name);
    }
    return take_prefix(text, "mem:") && unescape(text, url.name);
}

} // namespace

uint32_t usual_spin_us()
{
    cpu_set_t ours;
    return sched_getaffinity(0, sizeof ours, &ours) == 0 && CPU_COUNT(&ours) == 1 ? 0 : 50;
}

bool parse_port(std::string_view text, uint16_t &port)
{
    return parse_number(text, port) && port != 0;
}

std::optional<store_url> parse_store_url(std::string_view text)
{
    store_url url;
    const auto address = take_until(text, '?');
    if (!parse_address(url, address) || !parse_options(url, text))
        return std::nullopt;
    if (url.wait_ms == 0)
        url.wait_ms = (url.timeout_ms + 1) / 2;
    // A server that waits says nothing meanwhile; who has no sentinels does not log in to them; a certificate is worth
    // nothing without its key, and neither without TLS.
    const bool hears_in_time = url.wait_replicas == 0 || url.wait_ms < url.timeout_ms;
    const bool asked = url.scheme == store_scheme::sentinel || url.sentinels.empty();
    const bool secured =
        url.tls ? url.files.cert.empty() == url.files.key.empty() : url.files.empty() && url.server_name.empty();
    return hears_in_time && asked && secured ? std::optional(url) : std::nullopt;
}

} // namespace mom
