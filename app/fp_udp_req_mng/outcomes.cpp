// What ends a request: an answer, its age, fewer service nodes. Each leaves through judge() alone, and the application
// hears of it once.
//
// The application's callbacks may delete, set or expire anything, the node being reported included. A callback
// therefore gets copies of what it is told, `stat` and `is_req` are set before it runs, and the ageing pass detaches a
// request before it reports and never trusts a neighbour across the call: every removal corrects the walks under way.
// What a callback writes is newer than the clock that the pass has read, and is left to the next one.
#include "area.hpp"
#include "kinds.hpp"
#include "pending.hpp"

namespace plx::req {

constinit pass_hook before_pass = nullptr;

namespace {

constexpr uint64_t ageing_seconds = 180;
constexpr uint32_t visits_per_tick = 5000;
constexpr int32_t aged = -9; // what the ageing pass judges with; never stored, never reported

// A node whose outcome a callback is hearing: a pass that the callback starts must not tell it once more.
class telling {
  public:
    explicit telling(const void *node) : node_(node), outer_(innermost_) { innermost_ = this; }
    ~telling() { innermost_ = outer_; }
    telling(const telling &) = delete;
    telling &operator=(const telling &) = delete;

    static bool of(const void *node)
    {
        const telling *at = innermost_;
        while (at != nullptr && at->node_ != node)
            at = at->outer_;
        return at != nullptr;
    }

  private:
    const void *node_;
    telling *outer_;
    static inline telling *innermost_ = nullptr;
};

const fp_udp_acl_handler no_handler = {};

const fp_udp_acl_handler &handler()
{
    return g_req_para.handler == nullptr ? no_handler : *g_req_para.handler;
}

// How an outcome is told, and in what words.
void report_success(const fp_udp_ace_node &node)
{
    const fp_udp_ace_node told = node;
    if (const auto cb = handler().ace_reply_ok_cb; cb != nullptr)
        cb(g_req_para.g_ssd_fp_global, &told.acl, told.ace.sn, told.ace.priv);
}

void report_success(const fp_udp_apply_node &node)
{
    const fp_udp_apply_node told = node;
    if (const auto cb = handler().apply_reply_ok_cb; cb != nullptr)
        cb(g_req_para.g_ssd_fp_global, &told.acl, &told.apply, told.apply.priv);
}

void report_failure(const fp_udp_ace_node &node, diag::place at)
{
    const auto cb = handler().ace_fail_cb;
    if (cb == nullptr)
        return;
    const fp_udp_ace_node told = node;
    report<Error>(at, "service node reply set ace fail! app_type:%s acl_id:%d sn:%llx.\n", told.acl.app_type,
                  told.acl.acl_id, told.ace.sn);
    cb(g_req_para.g_ssd_fp_global, &told.acl, told.ace.sn, told.ace.stat, told.ace.priv);
}

// "app:" is the applying type, "acl_type:" the ACL's: log readers match these labels.
void report_failure(const fp_udp_apply_node &node, diag::place at)
{
    const auto cb = handler().apply_fail_cb;
    if (cb == nullptr)
        return;
    const fp_udp_apply_node told = node;
    const fp_udp_apply_info &apply = told.apply;
    report<Error>(
        at,
        "reply apply failed! status:%d app:[%s] phyid:[0x%x] prior:[%u] direction:[%u] acl_type:[%s] acl_id:[%d].\n",
        apply.stat, apply.apply_type, apply.phyid, apply.pri, apply.dir, told.acl.app_type, told.acl.acl_id);
    cb(g_req_para.g_ssd_fp_global, &told.acl, &apply, apply.stat, apply.priv);
}

void report_aged(const fp_udp_ace_node &node, diag::place at)
{
    report<Error>(at, "Ace aged app:[%s] aclid:[%d] sn:[%u] sub_sn:[%u].\n", node.acl.app_type, node.acl.acl_id,
                  static_cast<uint32_t>(node.ace.sn), static_cast<uint32_t>(node.ace.sn >> 32));
}

void report_aged(const fp_udp_apply_node &node, diag::place at)
{
    report<Error>(at, "Apply aged app:[%s] phyid:[0x%x] prior:[%u] direction:[%u].\n", node.apply.apply_type,
                  node.apply.phyid, node.apply.pri, node.apply.dir);
}

template <class Node> bool answered_by_all(const Node &node)
{
    return int32_t{state_of(node).req_count} >= g_fp_service.count;
}

template <class Node> void succeed(Node &node, uint64_t plx_outcomes::*how)
{
    ++(outcomes_of(node).*how);
    state_of(node).stat = 0;
    state_of(node).is_req = 1;
    report_success(node);
}

template <class Node> void fail(Node &node, diag::place at)
{
    ++outcomes_of(node).failed;
    state_of(node).is_req = 1;
    report_failure(node, at);
}

// An aged request without a recorded failure is a success: nodes speak up about what they cannot program.
template <class Node> void judge_aged(Node &node, diag::place at)
{
    if (answered_by_all(node))
        succeed(node, &plx_outcomes::ok_by_answers);
    else if (state_of(node).stat == 0)
        succeed(node, &plx_outcomes::ok_by_age);
    else
        fail(node, at);
}

template <class Node> void judge(Node &node, int32_t status, int32_t final, diag::place at)
{
    const telling outcome(&node);
    auto &state = state_of(node);
    if (status == 0) {
        ++state.req_count;
        if (state.is_req != 0)
            ++outcomes_of(node).dropped_late;
        else if (answered_by_all(node))
            succeed(node, &plx_outcomes::ok_by_answers);
        return;
    }
    if (final != 0)
        return judge_aged(node, at);
    state.stat = status;
    fail(node, at);
}

// The text names the operation that judges, too.
template <class Node> [[nodiscard]] int32_t judge(Node *node, int32_t status, int32_t final, diag::text<> no_node)
{
    if (node == nullptr) {
        report<Error>(no_node);
        return FP_UDP_INVALID;
    }
    judge(*node, status, final, {no_node.function, no_node.line});
    return FP_UDP_OK;
}

// A node that its callback has written anew waits again, and is not.
template <class Node> bool being_told(const Node &node)
{
    return state_of(node).is_req != 0 && telling::of(&node);
}

// A request ends by its age, or in a forced pass by having answers enough. One that has no time yet begins to age now.
bool is_due(fp_udp_req_node &request, const timeval &now, bool forced)
{
    if (forced && with_node(request, [](auto &node) { return answered_by_all(node); }))
        return true;
    if (!known(now))
        return false;
    if (!known(request.time))
        request.time = now;
    return age_seconds(now, request.time) >= ageing_seconds;
}

template <class Node> void end_aged(Node &node, diag::place at)
{
    report_aged(node, at);
    detach(node.req);
    kind<Node>::judge(&node, aged, 1);
}

} // namespace
} // namespace plx::req

using namespace plx::req;

extern "C" {

int32_t fp_udp_ace_req_stat_proc(fp_udp_ace_node *node, int32_t status, int32_t final)
{
    return judge(node, status, final, "ace_node is NULL.");
}

int32_t fp_udp_apply_req_stat_proc(fp_udp_apply_node *node, int32_t status, int32_t final)
{
    return judge(node, status, final, "apply_node is NULL.");
}

void fp_udp_req_check_proc(int32_t force)
{
    if (before_pass != nullptr)
        before_pass();
    const plx::diag::place here = {__func__, __LINE__};
    const timeval now = time_now();
    pending_walk walk;
    for (uint32_t visits = 0; force == 1 || visits < visits_per_tick; ++visits) {
        fp_udp_req_node *request = walk.next();
        if (request == nullptr)
            return;
        if (walk.precedes(*request) || !is_due(*request, now, force == 1))
            continue;
        plx::with_node(*request, [here](auto &node) {
            if (!being_told(node))
                end_aged(node, here);
        });
    }
}

} // extern "C"
