// See name_lookup.hpp.
#include "name_lookup.hpp"

#include <algorithm>
#include <array>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace mom {

// The C library writes into it until the lookup has ended.
struct lookup_request {
    std::string host;
    addrinfo hints{};
    gaicb question{};

    explicit lookup_request(std::string name) : host(std::move(name))
    {
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        question.ar_name = host.c_str();
        question.ar_request = &hints;
    }
    bool ended() { return gai_error(&question) != EAI_INPROGRESS; }
};

namespace {

constexpr timespec patience{0, 100'000'000};

// Those that could not be stopped. It is never destroyed: the C library may write into them until the process ends.
void keep_until_ended(std::unique_ptr<lookup_request> request)
{
    static std::mutex guard;
    static auto &kept = *new std::vector<std::unique_ptr<lookup_request>>;
    const std::lock_guard lock(guard);
    std::erase_if(kept, [](const auto &each) {
        const bool ended = each->ended();
        if (ended && each->question.ar_result != nullptr)
            freeaddrinfo(each->question.ar_result);
        return ended;
    });
    kept.push_back(std::move(request));
}

std::unique_ptr<lookup_request, lookup_end> ask(const std::string &host)
{
    std::unique_ptr<lookup_request, lookup_end> request(new lookup_request(host));
    gaicb *list[] = {&request->question};
    if (getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr) != 0) {
        delete request.release(); // nobody has it
        return nullptr;
    }
    return request;
}

std::vector<std::string> numeric(const addrinfo *found)
{
    std::vector<std::string> addresses;
    for (; found != nullptr; found = found->ai_next) {
        std::array<char, NI_MAXHOST> text{};
        if (getnameinfo(found->ai_addr, found->ai_addrlen, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) == 0)
            addresses.emplace_back(text.data());
    }
    return addresses;
}

bool is_numeric(const std::string &host)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *found = nullptr;
    const bool is = getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0;
    if (is)
        freeaddrinfo(found);
    return is;
}

} // namespace

void lookup_end::operator()(lookup_request *request) const
{
    std::unique_ptr<lookup_request> owned(request);
    if (!owned->ended() && gai_cancel(&owned->question) == EAI_NOTCANCELED)
        return keep_until_ended(std::move(owned));
    if (owned->question.ar_result != nullptr)
        freeaddrinfo(owned->question.ar_result);
}

std::vector<std::string> name_lookup::addresses(const std::string &host)
{
    if (is_numeric(host))
        return {host};
    entry &of = hosts_[host];
    if (of.asked == nullptr)
        of.asked = ask(host);
    if (of.asked == nullptr)
        return of.found;
    const gaicb *list[] = {&of.asked->question};
    gai_suspend(list, 1, &patience);
    if (!of.asked->ended())
        return of.found;
    auto now = numeric(of.asked->question.ar_result);
    of.asked.reset();
    // The same ones keep their order.
    if (!now.empty() && !std::is_permutation(now.begin(), now.end(), of.found.begin(), of.found.end()))
        of.found = std::move(now);
    return of.found;
}

void name_lookup::connected(const std::string &host, const std::string &address)
{
    auto &found = hosts_[host].found;
    const auto at = std::find(found.begin(), found.end(), address);
    if (at != found.end())
        std::rotate(found.begin(), at, at + 1);
}

void name_lookup::failed(const std::string &host, const std::string &address)
{
    auto &found = hosts_[host].found;
    const auto at = std::find(found.begin(), found.end(), address);
    if (at != found.end())
        std::rotate(at, at + 1, found.end());
}

} // namespace mom
