// The forwarding plane's service nodes: those heard from recently. Their number is how many answers a request needs.
//
// A node is known by its first record, refreshed by each further one, and leaves by silence alone.
#include "../list.hpp"
#include "area.hpp"
#include "descriptor.hpp"

#include <cstdlib>
#include <plx/request.h>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

extern "C" {
constinit fp_udp_service g_fp_service = {{&g_fp_service.nodes, &g_fp_service.nodes}, 0};
}

namespace plx::req {
namespace {

constexpr uint64_t silence_seconds = 19; // a node silent for longer is gone
uint32_t heartbeat_db = 0;               // that was subscribed to last

constexpr int32_t bad_notification = 4; // positive, unlike the library's other codes

int32_t fp_udp_service_node_callback(void *, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr || notification->record == nullptr) {
        report<Error>("msg para ERROR.");
        return bad_notification;
    }
    if (notification->event != TQ_MOM_EVENT_PUBLISHED)
        return FP_UDP_OK;
    const bool ours = describes(notification->record->descriptor, s_policy__service_node__descriptor);
    const auto *index = ours ? reinterpret_cast<const SPolicy__ServiceNode *>(notification->record)->index : nullptr;
    if (index == nullptr) {
        report<Error>("msg para ERROR.");
        return bad_notification;
    }
    const fp_udp_service_node_key key = {index->dev, index->slot, index->id};
    return fp_udp_fp_service_node_add(&key);
}

// The node is freed; the texts speak of the count without it.
void drop(fp_udp_service_node &node, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    --g_fp_service.count;
    list::unlink(node.links);
    report<Error>(diag::place{function, line},
                  "service node expired:dev[%d] slot[%d] id[%d] might be wrong with fe.fp or lc offline. The current "
                  "total number of "
                  "service node is: %d\n",
                  node.dev, node.slot, node.id, g_fp_service.count);
    std::free(&node);
}

} // namespace

bool silence_counts()
{
    enum class Store : uint8_t { Unknown, Heard, Deaf };
    static Store store = Store::Unknown; // one that never told its state is not asked for more
    const bool hears = tq_mom_state_get(g_req_para.g_ssd_fp_global, heartbeat_db, 0) == 0;
    const bool counts = hears ? store != Store::Deaf : store == Store::Unknown;
    if (hears)
        store = Store::Heard;
    else if (store != Store::Unknown)
        store = Store::Deaf;
    return counts;
}

} // namespace plx::req

using namespace plx::req;

extern "C" {

int32_t fp_udp_service_node_subscribe(void *g_ssd_fp_global, uint32_t db)
{
    SPolicy__ServiceNodeIndex index = S_POLICY__SERVICE_NODE_INDEX__INIT;
    SPolicy__ServiceNode record = S_POLICY__SERVICE_NODE__INIT;
    record.index = &index;
    heartbeat_db = db;
    return tq_mom_subscribe(g_ssd_fp_global, db, &record.base, 0, fp_udp_service_node_callback, nullptr);
}

fp_udp_service_node *fp_udp_fp_service_node_search(const fp_udp_service_node_key *key)
{
    if (key == nullptr)
        return nullptr;
    for (fp_udp_service_node &node : plx::elements<fp_udp_service_node>(g_fp_service.nodes))
        if (node.dev == key->dev && node.slot == key->slot && node.id == key->id)
            return &node;
    return nullptr;
}

int32_t fp_udp_fp_service_node_add(const fp_udp_service_node_key *key)
{
    if (key == nullptr)
        return FP_UDP_INVALID;
    if (fp_udp_service_node *known = fp_udp_fp_service_node_search(key); known != nullptr) {
        known->up_time = time_now();
        return FP_UDP_OK;
    }
    auto *added = static_cast<fp_udp_service_node *>(std::malloc(sizeof(fp_udp_service_node)));
    if (added == nullptr) {
        report<Error>("malloc for fp node fail.");
        return FP_UDP_NO_MEMORY;
    }
    added->dev = key->dev;
    added->slot = key->slot;
    added->id = key->id;
    added->up_time = time_now();
    plx::list::push_back(g_fp_service.nodes, added->links);
    ++g_fp_service.count;
    return FP_UDP_OK;
}

void fp_udp_fp_service_node_expire(void)
{
    const timeval now = time_now();
    if (!known(now))
        return;
    const int32_t count = g_fp_service.count;
    for (fp_udp_service_node &node : plx::elements<fp_udp_service_node>(g_fp_service.nodes)) {
        if (!known(node.up_time))
            node.up_time = now;
        if (age_seconds(now, node.up_time) > silence_seconds)
            drop(node);
    }
    if (g_fp_service.count != count)
        fp_udp_req_check_proc(1);
}

} // extern "C"
