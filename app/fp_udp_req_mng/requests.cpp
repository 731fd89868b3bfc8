// Pending requests: one per ACE or apply node whose write the forwarding plane has yet to answer.
//
// A node and its request always point at each other. The list is ordered by first submission, oldest first. What ends a
// request is in outcomes.cpp.
#include "answers.hpp"
#include "area.hpp"
#include "kinds.hpp"
#include "pending.hpp"

#include <cstdlib>
#include <cstring>

extern "C" {
constinit fp_udp_req_para g_req_para = {nullptr, nullptr, {&g_req_para.pending, &g_req_para.pending}};

const plx_counters *plx_get_counters(void)
{
    return &plx::counters;
}
}

namespace plx {
constinit plx_counters counters = {};
}

namespace plx::req {
namespace {

fp_udp_req_node *&request_of(uint8_t type, void *node)
{
    return with_node(type, node, [](auto &waiting) -> fp_udp_req_node *& { return waiting.req; });
}

// Starts a request's waiting, or starts it over.
void stamp(fp_udp_req_node &request)
{
    request.time = time_now();
    pending_walk::stamp(request);
}

// The names of nodes that have answered in this process's life, as they came. A name keeps its number.
constexpr size_t longest_name = 40;
constexpr uint32_t names_known = 64; // further nodes' answers count one by one
struct node_name {
    uint8_t text[longest_name];
    size_t length;
};
node_name names[names_known];
uint32_t names_used = 0;

// The number of a name, a new one's included; names_known where there is none left.
uint32_t number_of(const uint8_t *name, size_t length)
{
    if (length > longest_name)
        return names_known;
    for (uint32_t i = 0; i < names_used; ++i)
        if (names[i].length == length && std::memcmp(names[i].text, name, length) == 0)
            return i;
    if (names_used == names_known)
        return names_known;
    std::memcpy(names[names_used].text, name, length);
    names[names_used].length = length;
    return names_used++;
}

bool acceptable(uint8_t type, const void *node)
{
    return (type == FP_UDP_REQ_ACE || type == FP_UDP_REQ_APPLY) && node != nullptr;
}

} // namespace

void detach(fp_udp_req_node *request)
{
    request_of(request->type, request->node) = nullptr;
    pending_walk::leave(request->links);
    list::unlink(request->links);
    std::free(request);
}

bool first_word(fp_udp_req_node &request, const uint8_t *name, size_t length)
{
    const uint32_t number = number_of(name, length);
    if (number == names_known)
        return true;
    uint64_t &confirmed = reinterpret_cast<numbered_request &>(request).confirmed;
    const uint64_t bit = uint64_t{1} << number;
    const bool first = (confirmed & bit) == 0;
    confirmed |= bit;
    return first;
}

timeval time_now()
{
    timeval now = {};
    return tq_monotime(&now) == 0 ? now : timeval{};
}

uint64_t age_seconds(const timeval &now, const timeval &since)
{
    timeval age = {now.tv_sec - since.tv_sec, now.tv_usec - since.tv_usec};
    if (age.tv_usec < 0) {
        --age.tv_sec;
        age.tv_usec += 1000000;
    }
    return tq_timeval_to_sec(&age);
}

} // namespace plx::req

using namespace plx::req;

extern "C" {

int32_t fp_udp_req_node_add(uint8_t type, void *node)
{
    if (!acceptable(type, node)) {
        report<Error>("input para error, type %d.", type);
        return FP_UDP_INVALID;
    }
    fp_udp_req_node *&request = request_of(type, node);
    if (request != nullptr) {
        stamp(*request);
        return FP_UDP_OK;
    }
    auto *block = static_cast<numbered_request *>(std::malloc(sizeof(numbered_request)));
    if (block == nullptr) {
        report<Error>("mallc req node fail.");
        return FP_UDP_NO_MEMORY;
    }
    request = &block->request;
    request->node = node;
    request->type = type;
    stamp(*request);
    plx::list::push_back(g_req_para.pending, request->links);
    return FP_UDP_OK;
}

int32_t fp_udp_req_node_del(uint8_t type, void *node)
{
    if (!acceptable(type, node)) {
        report<Error>("input para error, type %d.", type);
        return FP_UDP_INVALID;
    }
    if (fp_udp_req_node *request = request_of(type, node); request != nullptr)
        detach(request);
    return FP_UDP_OK;
}

} // extern "C"
