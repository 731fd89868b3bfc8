// Status replies and counters from the forwarding plane.
//
// A reply counts only when it answers the node's newest write. The application's callback may have deleted the node, or
// written it anew: what is left to do is decided by looking it up again. The ACE's and the apply's texts differ: log
// readers match them.
#include "status.hpp"

#include "../fp_udp_req_mng/answers.hpp"
#include "../fp_udp_req_mng/kinds.hpp"
#include "ask_again.hpp"
#include "history.hpp"
#include "store_record.hpp"

#include <plx/request.h>
#include <plx/status.h>

namespace plx::mgr {
namespace {

// A kind's status record: what it says of which node, and what is said of it.
template <class Node> struct reply;

template <> struct reply<fp_udp_ace_node> : kind<fp_udp_ace_node> {
    using record = SPolicy__AcePsta;
    static constexpr diag::text<> came = "ace return.";
    static constexpr diag::text<> no_record = "SPolicy__AcePsta is NULL";
    static constexpr diag::text<> not_cached = "get ace from acldb fail";
    static constexpr diag::text<> failed_before = "status has update";
    static constexpr diag::text<> of_older_write = "uuid is not the newest.";

    static bool names_valid(const SPolicy__AceKey &key) { return valid(key.t_app_type); }
    static fp_udp_acl_info acl(const SPolicy__AceKey &key) { return acl_descriptor(key.t_app_type, key.acl_id); }
    static info own(const SPolicy__AceKey &key) { return ace_descriptor(key.sn); }
    static void show(const SPolicy__AceKey &key, diag::place at)
    {
        report<Notice>(at, "app_type : %s, acl_id : %d, sn : %lld", key.t_app_type, key.acl_id, key.sn);
    }
};

template <> struct reply<fp_udp_apply_node> : kind<fp_udp_apply_node> {
    using record = SPolicy__ApplyPsta;
    static constexpr diag::text<> came = "apply return.";
    static constexpr diag::text<> no_record = "SPolicy__ApplyPsta is NULL";
    static constexpr diag::text<> not_cached = "get apply fail";
    static constexpr diag::text<> failed_before = "apply status is not 0";
    static constexpr diag::text<> of_older_write = "apply uuid is not newest";

    static bool names_valid(const SPolicy__ApplyKey &key) { return valid(key.app_type) && valid(key.t_apply_type); }
    static fp_udp_acl_info acl(const SPolicy__ApplyKey &key) { return acl_descriptor(key.app_type, key.acl_id); }
    static info own(const SPolicy__ApplyKey &key)
    {
        return apply_descriptor(key.t_apply_type, key.phyid, key.priority, key.direction);
    }
    static void show(const SPolicy__ApplyKey &key, diag::place at)
    {
        report<Notice>(at, "app_type : %s, acl_id : %d, apply_type : %s, phyid : 0x%x, pri : %d, dir : %d",
                       key.app_type, key.acl_id, key.t_apply_type, key.phyid, key.priority, key.direction);
    }
};

template <class Node> Node *look_up(const fp_udp_acl_info &acl, const typename reply<Node>::info &info, diag::place at)
{
    Node *node = nullptr;
    if (reply<Node>::get(&acl, &info, &node) != FP_UDP_OK)
        report<Notice>(at, reply<Node>::not_cached);
    return node;
}

template <class Node> bool answers_newest_write(const Node &node, uint64_t rep_uuid, diag::place at)
{
    if (state_of(node).stat != 0) {
        report<Notice>(at, reply<Node>::failed_before);
        ++outcomes_of(node).dropped_late;
        return false;
    }
    if (state_of(node).uuid != rep_uuid) {
        report<Notice>(at, reply<Node>::of_older_write);
        ++outcomes_of(node).dropped_older;
        return false;
    }
    return true;
}

// The text is all that matters of it.
const ProtobufCMessageUnknownField *node_name(const ProtobufCMessage &record)
{
    for (unsigned i = 0; i < record.n_unknown_fields; ++i)
        if (record.unknown_fields[i].tag == FP_UDP_NODE_NAME_FIELD)
            return &record.unknown_fields[i];
    return nullptr;
}

// A confirmation that this node has given before for what is waited for.
template <class Node> bool repeats(const Node &node, const ProtobufCMessage &record, diag::place at)
{
    const auto *name = node.req == nullptr ? nullptr : node_name(record);
    if (name == nullptr || name->data == nullptr || plx::req::first_word(*node.req, name->data, name->len))
        return false;
    report<Notice>(at, "service node has answered before");
    ++outcomes_of(node).dropped_late;
    return true;
}

// The pending request ends with its outcome; one that the callback has started anew has no outcome yet.
template <class Node> void settle(Node *node)
{
    if (node != nullptr && state_of(*node).is_req != 0)
        fp_udp_req_node_del(reply<Node>::request_type, node);
}

template <class Node>
int32_t on_reply(void *ctx, const tq_mom_notification *notification, const char *function = __builtin_FUNCTION(),
                 int line = __builtin_LINE())
{
    using of = reply<Node>;
    if (notification != nullptr && notification->event == TQ_MOM_EVENT_RESYNC && notification->record == nullptr) {
        note_history(ctx, *notification);
        ask_again(ctx);
    }
    if (notification == nullptr || notification->event != TQ_MOM_EVENT_STATUS)
        return FP_UDP_OK;
    const diag::place at = {function, line};
    report<Notice>(at, of::came);
    const auto *record = keyed_record<typename of::record>(notification->record);
    if (record == nullptr) {
        report<Error>(at, of::no_record);
        return FP_UDP_NO_RECORD;
    }
    if (!of::names_valid(*record->index))
        return refuse_name(function, line);
    of::show(*record->index, at);

    const fp_udp_acl_info acl = of::acl(*record->index);
    const auto info = of::own(*record->index);
    Node *node = look_up<Node>(acl, info, at);
    if (node == nullptr)
        ++(counters.*of::outcomes).dropped_unknown;
    if (node == nullptr || !answers_newest_write(*node, record->rep_uuid, at))
        return FP_UDP_OK;
    if (record->p_status == 0 && repeats(*node, record->base, at))
        return FP_UDP_OK;
    of::judge(node, record->p_status, 0);
    settle(look_up<Node>(acl, info, at));
    return FP_UDP_OK;
}

} // namespace

int32_t ace_service_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    return on_reply<fp_udp_ace_node>(ctx, notification);
}

int32_t apply_service_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    return on_reply<fp_udp_apply_node>(ctx, notification);
}

int32_t ace_cnter_notify_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr || notification->event != TQ_MOM_EVENT_PUBLISHED)
        return FP_UDP_OK;
    const auto *record = keyed_record<SPolicy__AceCounter>(notification->record);
    if (record == nullptr)
        return FP_UDP_NO_RECORD;
    const char *app_type = record->index->t_app_type == nullptr ? "" : record->index->t_app_type;
    if (!valid(app_type))
        return refuse_name();
    if (para.handler.ace_counter_cb == nullptr)
        return FP_UDP_OK;
    const fp_udp_acl_info acl = acl_descriptor(app_type, record->index->acl_id);
    const fp_udp_ace_counter counter = {record->counter_pkt,   record->counter_byte, record->timestamp,
                                        record->counter_byte1, record->counter_pkt1, record->timestamp_rt};
    para.handler.ace_counter_cb(ctx, &acl, record->index->sn, &counter);
    return FP_UDP_OK;
}

} // namespace plx::mgr
