// See application.hpp.
#include "application.hpp"

#include "names.hpp"
#include "nodes/holdings.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <span>
#include <tq_mom.h>

namespace plx::tool {

namespace {

constexpr int writes_between_pauses = 64;
constexpr uint32_t longest_commit_s = 60; // that the library allows

std::string write_error(int32_t result)
{
    if (result > 0)
        return std::string("store: ") + tq_mom_strerror(result);
    if (result == FP_UDP_NOT_FOUND)
        return "library: the ACL is not there";
    return std::string("library: ") + plx_result_text(result) + " (" + std::to_string(result) + ")";
}

// The entry's attributes are packed already: they are put into the buffer as pushing them one by one would.
bool fill(fp_udp_ace *ace, const PolicyEntry &entry)
{
    ace->ace_pri = entry.priority;
    copy_name(ace->priv, entry.name());
    const std::span<const uint8_t> packed = entry.attributes();
    void *grown = std::realloc(ace->tlv, offsetof(fp_udp_ace_tlv, data) + packed.size());
    if (grown == nullptr)
        return false;
    ace->tlv = static_cast<fp_udp_ace_tlv *>(grown);
    ace->tlv->len = static_cast<uint16_t>(packed.size());
    std::copy(packed.begin(), packed.end(), ace->tlv->data);
    return true;
}

std::string node_error(int32_t status)
{
    return std::string(status_text(status)) + " (" + std::to_string(status) + ")";
}

uint64_t time_outs(tq_context *context)
{
    tq_mom_counters counters{};
    tq_mom_counters_get(context, &counters);
    return counters.results[TQ_MOM_TIMEOUT];
}

// The library's deletions do not tell of a store that fails; the store client counts it.
uint64_t store_failures(tq_context *context)
{
    tq_mom_counters counters{};
    tq_mom_counters_get(context, &counters);
    return std::accumulate(counters.results + 1, std::end(counters.results), uint64_t{0});
}

// Calls `pause` now and then.
std::function<void()> breathing(const std::function<void()> &pause)
{
    return [pause, writes = 0]() mutable {
        if (++writes % writes_between_pauses == 0)
            pause();
    };
}

} // namespace

Application *Application::current_ = nullptr;

Application::Application(tq_context *context, uint32_t db, const Policy &policy)
    : context_(context), db_(db), policy_(policy), rows_(policy),
      ledger_(rows_.size(), [this](size_t row) { return rows_.label(row); }),
      difference_(context, db, policy, rows_, ledger_)
{
    current_ = this;
}

Application::~Application()
{
    current_ = nullptr;
}

// ---- what the library tells -----------------------------------------------------------------------------------------

struct Application::Callbacks {
    static int32_t acl_ok(void *, const fp_udp_acl *acl, const uint8_t *) noexcept
    {
        if (const auto *known = current_->rows_.find_acl(acl->acl_id))
            current_->ledger_.end(known->row, Outcome::stored, "ok");
        return 0;
    }

    static int32_t acl_fail(void *, const fp_udp_acl *acl, int32_t result, const uint8_t *) noexcept
    {
        if (const auto *known = current_->rows_.find_acl(acl->acl_id))
            current_->refused(known->row, result);
        return 0;
    }

    static int32_t ace_ok(void *, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *) noexcept
    {
        fp_udp_ace_info key{};
        key.sn = sn;
        fp_udp_ace_node *node = nullptr;
        const bool cached = fp_udp_acldb_get_ace(acl, &key, &node) == 0;
        if (const auto row = current_->rows_.find_ace(acl->acl_id, sn))
            current_->succeeded(*row, cached ? node->ace.req_count : 0);
        return 0;
    }

    static int32_t ace_fail(void *, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *) noexcept
    {
        if (const auto row = current_->rows_.find_ace(acl->acl_id, sn))
            current_->refused(*row, status);
        return 0;
    }

    static int32_t apply_ok(void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply,
                            const uint8_t *) noexcept
    {
        if (const auto row = current_->rows_.find_apply(acl->acl_id, apply->phyid, apply->pri))
            current_->succeeded(*row, apply->req_count);
        return 0;
    }

    static int32_t apply_fail(void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, int32_t status,
                              const uint8_t *) noexcept
    {
        if (const auto row = current_->rows_.find_apply(acl->acl_id, apply->phyid, apply->pri))
            current_->refused(*row, status);
        return 0;
    }

    static fp_udp_acl_handler table()
    {
        fp_udp_acl_handler made{};
        made.set_acl_ok_cb = &acl_ok;
        made.set_acl_fail_cb = &acl_fail;
        made.ace_reply_ok_cb = &ace_ok;
        made.ace_fail_cb = &ace_fail;
        made.apply_reply_ok_cb = &apply_ok;
        made.apply_fail_cb = &apply_fail;
        return made;
    }
};

// The library also tells of success when it has waited long enough without hearing of a failure; how many nodes have
// answered shows which of the two it is.
void Application::succeeded(size_t row, int answers)
{
    if (setting_ && timed_out_ && !last_try_) // what applies it may be what is to be written once more
        return ledger_.put_back(row);
    if (setting_)
        return ledger_.end(row, Outcome::stored, "not applied to a port");
    const int expected = std::max(live_nodes(), static_cast<int>(answers_.expected()));
    if (answers > 0 && answers >= expected)
        return ledger_.end(row, Outcome::programmed, "ok");
    ledger_.end(row, Outcome::aged,
                std::to_string(answers) + " of " + std::to_string(expected) + " nodes answered" +
                    answers_.missing(row));
}

void Application::refused(size_t row, int32_t status)
{
    if (setting_ && status == TQ_MOM_TIMEOUT && !last_try_) {
        timed_out_ = true;
        return ledger_.put_back(row);
    }
    if (setting_ && (status == TQ_MOM_DISCONNECTED || status == TQ_MOM_TIMEOUT))
        lose_store(status);
    denied_ = denied_ || (setting_ && status == TQ_MOM_DENIED);
    ledger_.end(row, Outcome::failed,
                setting_ ? write_error(status) : node_error(status) + answers_.where_refused(row));
}

// Heard before the library hears it.
void Application::answered(const ProtobufCMessage *status, const std::string &node)
{
    if (node.empty())
        return answers_.unnamed();
    const auto key = key_of(status);
    const auto row = key ? rows_.find(*key) : std::nullopt;
    if (!row)
        return;
    if (number_field(status, "p_status") != 0)
        answers_.refused(*row, node);
    else
        answers_.confirmed(*row, node);
}

void Application::time_out()
{
    for (size_t row = 0; row < ledger_.size(); ++row)
        if (ledger_.outcome(row) == Outcome::waiting)
            ledger_.end(row, Outcome::timed_out, "no answer in time" + answers_.missing(row));
}

bool Application::would_refuse(const std::string &node, const std::map<uint64_t, int32_t> &statuses)
{
    bool any = false;
    for_each_record(policy_, [&](const Key &key, const Requested &) {
        const auto status = statuses.find(digest_of(key));
        const auto row = status == statuses.end() ? std::nullopt : rows_.find(key);
        if (!row)
            return;
        answers_.refused(*row, node);
        refused(*row, status->second);
        any = true;
    });
    return any;
}

void Application::withhold()
{
    for (size_t row = 0; row < ledger_.size(); ++row)
        if (ledger_.outcome(row) == Outcome::waiting)
            ledger_.put_back(row);
}

void Application::keep(const PolicySum &there)
{
    kept_ = there;
    ledger_ = Ledger(there.all().count, {});
    for (size_t row = 0; row < ledger_.size(); ++row)
        ledger_.end(row, Outcome::unchanged, "");
}

// ---- what the library is told ---------------------------------------------------------------------------------------

int Application::start()
{
    if (plx_initial() != 0 || fp_udp_register_app_type(policy_.application.c_str()) != 0)
        return FP_UDP_REFUSED;
    const fp_udp_acl_handler handler = Callbacks::table();
    const uint64_t before = time_outs(context_);
    const int result = fp_udp_register_acl_handler(context_, db_, &handler);
    (void)plx_register_debug_commands(context_); // a shell that does not open is reported, and nothing else
    mgr_ = fp_udp_get_mgr();
    return time_outs(context_) == before ? result : static_cast<int>(TQ_MOM_TIMEOUT);
}

int Application::bracket(std::initializer_list<Operation> operations)
{
    int first_failure = 0;
    for (const Operation operation : operations) {
        const int result = operation(context_, policy_.application.c_str());
        first_failure = first_failure != 0 ? first_failure : result;
    }
    return first_failure;
}

// Applies stand before entries: an entry whose ACL is not applied yet would be answered by the library at once, and
// nobody would hear what the service nodes say.
int Application::write(const std::function<void()> &pause, const std::function<bool()> &again)
{
    int begun = bracket({mgr_->expire_acl, mgr_->expire_ace, mgr_->expire_apply});
    if (begun == TQ_MOM_TIMEOUT && again())
        begun = bracket({mgr_->expire_acl, mgr_->expire_ace, mgr_->expire_apply});
    if (begun != 0)
        return begun;
    write_unended(pause, again);
    for (const Operation sweep : {mgr_->del_expire_ace, mgr_->del_expire_acl, mgr_->del_expire_apply}) {
        if (store_lost())
            break;
        int result = bracket({sweep});
        if ((result == TQ_MOM_TIMEOUT || result == TQ_MOM_DISCONNECTED) && again())
            result = bracket({sweep});
        not_swept_ = not_swept_ != 0 ? not_swept_ : result;
    }
    return 0;
}

// What goes, goes last, as with a rewrite, and stays where a write failed; but of the applies what only has another
// direction goes first, since the library tells them apart by port and priority alone.
int Application::write_changes(const std::function<void()> &pause, const std::function<bool()> &again)
{
    if (difference_.whole())
        return write(pause, again);
    remove_surely(again, [this] { difference_.remove_turned(); });
    difference_.know_unchanged();
    write_unended(pause, again);
    if (!store_lost())
        remove_surely(again,
                      [&] { collect(pause, [this](const Breathe &breathe) { difference_.remove_excess(breathe); }); });
    return store_lost() ? 0 : not_removed_;
}

// Deleting what is gone already does nothing: all of it is deleted once more where the store did not answer in time.
void Application::remove_surely(const std::function<bool()> &again, const std::function<void()> &remove_all)
{
    const uint64_t silent = time_outs(context_);
    uint64_t before = store_failures(context_);
    remove_all();
    if (time_outs(context_) != silent && again()) {
        before = store_failures(context_);
        remove_all();
    }
    if (store_failures(context_) != before)
        not_removed_ = TQ_MOM_STORE_ERROR;
}

// What `write` does goes to the store in groups, each before the loop is run. Refusals are told by the callbacks.
void Application::collect(const std::function<void()> &pause, const std::function<void(const Breathe &)> &write)
{
    const auto flush = [this](int32_t (*send)(void *)) {
        setting_ = true;
        (void)send(context_);
        setting_ = false;
    };
    (void)plx_bulk_begin(context_); // without it each goes by itself
    struct End {                    // also where `pause` throws
        const decltype(flush) &send;
        ~End() { send(plx_bulk_end); }
    } const end{flush};
    write(breathing([&] {
        flush(plx_bulk_flush);
        pause();
    }));
}

void Application::write_unended(const std::function<void()> &pause, const std::function<bool()> &again)
{
    const auto set = [this](const Breathe &breathe) { set_unended(breathe); };
    collect(pause, set);
    if (!timed_out_)
        return;
    last_try_ = true;
    if (again())
        collect(pause, set);
    else
        lose_store(TQ_MOM_TIMEOUT);
}

// All that did not turn out to be unchanged. What belongs to an ACL that is to be written once more waits for it.
void Application::set_unended(const std::function<void()> &breathe)
{
    const auto unended = [this](size_t row) { return ledger_.outcome(row) == Outcome::unwritten; };
    for (const PolicyRows::Acl &acl : rows_.acls()) {
        if (!unended(acl.row))
            continue;
        set(*acl.policy);
        breathe();
    }
    for (const PolicyApply &apply : policy_.applies) {
        const bool waits = unended(rows_.owner(apply).row);
        if (waits || !unended(rows_.of(apply)))
            continue;
        set(apply);
        breathe();
    }
    for (const PolicyRows::Acl &acl : rows_.acls()) {
        for (size_t at = 0; at < acl.policy->entries.size() && !unended(acl.row); ++at) {
            if (!unended(acl.first_entry() + at))
                continue;
            set(*acl.policy, acl.policy->entries[at], acl.first_entry() + at);
            breathe();
        }
    }
}

int Application::begin_commit()
{
    return mgr_->enable_app_commit(context_, policy_.application.c_str(), longest_commit_s);
}

// The enable marker goes at the end, so that the application's next changes are not held back.
void Application::end_commit(bool publish)
{
    if (publish)
        mgr_->publish_app_commit(context_, policy_.application.c_str());
    mgr_->disable_app_commit(context_, policy_.application.c_str());
}

// ---- writing --------------------------------------------------------------------------------------------------------

// A refusal that no callback told of, an argument's, ends the row too.
template <typename Write> void Application::set_row(size_t row, Write &&write)
{
    ledger_.begin(row);
    setting_ = true;
    const int32_t result = write();
    if (result != 0)
        refused(row, result);
    setting_ = false;
}

void Application::set(const PolicyAcl &acl)
{
    fp_udp_acl object{};
    copy_name(object.app_type, policy_.application);
    object.acl_id = acl.id;
    object.acl_cls = acl.cls;
    copy_name(object.priv, acl.name);
    set_row(rows_.of(acl).row, [&] { return mgr_->set_acl(context_, &object); });
}

void Application::set(const PolicyApply &apply)
{
    fp_udp_apply_key key{};
    copy_name(key.apply_type, policy_.application);
    key.phyid = apply.port;
    key.priority = apply.priority;
    key.direction = apply.direction;
    const std::unique_ptr<fp_udp_apply, void (*)(fp_udp_apply *)> object(mgr_->alloc_apply(&key), mgr_->free_apply);
    fp_udp_acl_info acl{};
    copy_name(acl.app_type, policy_.application);
    acl.acl_id = apply.acl;
    const uint8_t cls = rows_.owner(apply).policy->cls;
    set_row(rows_.of(apply), [&]() -> int32_t {
        return object == nullptr ? FP_UDP_NO_MEMORY : mgr_->set_apply(context_, &acl, cls, object.get());
    });
}

void Application::set(const PolicyAcl &acl, const PolicyEntry &entry, size_t row)
{
    const std::unique_ptr<fp_udp_ace, void (*)(fp_udp_ace *)> object(
        mgr_->alloc_ace(entry.sn, entry.is_default ? 1 : 0), mgr_->free_ace);
    fp_udp_acl_key key{};
    copy_name(key.app_type, policy_.application);
    key.acl_id = acl.id;
    set_row(row, [&]() -> int32_t {
        return object == nullptr || !fill(object.get(), entry) ? FP_UDP_NO_MEMORY
                                                               : mgr_->set_ace(context_, &key, object.get());
    });
}

} // namespace plx::tool
