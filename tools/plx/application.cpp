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
    : context_(context), db_(db), policy_(policy)
{
    current_ = this;
    ledger_ = Ledger(number_rows(), [this](size_t row) { return label(row); });
}

Application::~Application()
{
    current_ = nullptr;
}

size_t Application::number_rows()
{
    acls_.reserve(policy_.acls.size());
    for (const PolicyAcl &acl : policy_.acls) {
        acl_numbers_[acl.id] = acls_.size();
        acls_.push_back({.policy = &acl, .row = 0});
    }
    for (const PolicyApply &apply : policy_.applies)
        acls_[acl_numbers_.at(apply.acl)].applies.push_back(&apply);
    size_t rows = 0;
    for (Acl &acl : acls_) {
        acl.row = rows;
        rows = acl.first_entry() + acl.policy->entries.size();
        sort_entries(acl);
        for (size_t apply = 0; apply < acl.applies.size(); ++apply) {
            const PolicyApply &bound = *acl.applies[apply];
            apply_rows_[{bound.acl, bound.port, bound.priority}] = acl.row + 1 + apply;
        }
    }
    return rows;
}

void Application::sort_entries(Acl &acl) const
{
    const auto &entries = acl.policy->entries;
    const auto by_sn = [](const PolicyEntry &a, const PolicyEntry &b) { return a.sn < b.sn; };
    if (std::is_sorted(entries.begin(), entries.end(), by_sn))
        return;
    acl.order.resize(entries.size());
    std::iota(acl.order.begin(), acl.order.end(), 0U);
    std::sort(acl.order.begin(), acl.order.end(),
              [&](uint32_t a, uint32_t b) { return by_sn(entries[a], entries[b]); });
}

std::string apply_label(const PolicyApply &apply)
{
    std::string label = " on port " + std::to_string(apply.port) + ' ';
    label += direction_name(apply.direction);
    if (apply.priority != 0)
        label += " priority " + std::to_string(apply.priority);
    return label;
}

std::string Application::label(size_t row) const
{
    const auto behind =
        std::upper_bound(acls_.begin(), acls_.end(), row, [](size_t at, const Acl &acl) { return at < acl.row; });
    const Acl &acl = *std::prev(behind);
    std::string label = "acl " + std::to_string(acl.policy->id);
    const auto named = [&label](std::string_view name) {
        if (!name.empty())
            (label += ' ') += name;
    };
    if (row == acl.row) {
        named(acl.policy->name);
    } else if (row < acl.first_entry()) {
        label += apply_label(*acl.applies[row - acl.row - 1]);
    } else {
        const PolicyEntry &entry = acl.policy->entries[row - acl.first_entry()];
        label += " sn " + std::to_string(entry.sn);
        named(entry.name());
    }
    return label;
}

// ---- what the library tells -----------------------------------------------------------------------------------------

struct Application::Callbacks {
    static int32_t acl_ok(void *, const fp_udp_acl *acl, const uint8_t *) noexcept
    {
        if (const auto known = current_->acl_numbers_.find(acl->acl_id); known != current_->acl_numbers_.end())
            current_->ledger_.end(current_->acls_[known->second].row, Outcome::stored, "ok");
        return 0;
    }

    static int32_t acl_fail(void *, const fp_udp_acl *acl, int32_t result, const uint8_t *) noexcept
    {
        if (const auto known = current_->acl_numbers_.find(acl->acl_id); known != current_->acl_numbers_.end())
            current_->refused(current_->acls_[known->second].row, result);
        return 0;
    }

    static int32_t ace_ok(void *, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *) noexcept
    {
        fp_udp_ace_info key{};
        key.sn = sn;
        fp_udp_ace_node *node = nullptr;
        const bool cached = fp_udp_acldb_get_ace(acl, &key, &node) == 0;
        if (const auto row = current_->find_ace(acl->acl_id, sn))
            current_->succeeded(*row, cached ? node->ace.req_count : 0);
        return 0;
    }

    static int32_t ace_fail(void *, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *) noexcept
    {
        if (const auto row = current_->find_ace(acl->acl_id, sn))
            current_->refused(*row, status);
        return 0;
    }

    static int32_t apply_ok(void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply,
                            const uint8_t *) noexcept
    {
        if (const auto row = current_->find_apply(acl, apply->phyid, apply->pri))
            current_->succeeded(*row, apply->req_count);
        return 0;
    }

    static int32_t apply_fail(void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, int32_t status,
                              const uint8_t *) noexcept
    {
        if (const auto row = current_->find_apply(acl, apply->phyid, apply->pri))
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

std::optional<size_t> Application::find_ace(uint32_t acl, uint64_t sn) const
{
    const auto known = acl_numbers_.find(acl);
    if (known == acl_numbers_.end())
        return std::nullopt;
    const Acl &owner = acls_[known->second];
    const auto &entries = owner.policy->entries;
    size_t at = 0;
    if (owner.order.empty()) {
        const auto entry = std::lower_bound(entries.begin(), entries.end(), sn,
                                            [](const PolicyEntry &each, uint64_t wanted) { return each.sn < wanted; });
        at = static_cast<size_t>(entry - entries.begin());
    } else {
        const auto place = std::lower_bound(owner.order.begin(), owner.order.end(), sn,
                                            [&](uint32_t each, uint64_t wanted) { return entries[each].sn < wanted; });
        at = place == owner.order.end() ? entries.size() : *place;
    }
    return at < entries.size() && entries[at].sn == sn ? std::optional(owner.first_entry() + at) : std::nullopt;
}

std::optional<size_t> Application::find_apply(const fp_udp_acl_info *acl, uint32_t port, uint32_t priority) const
{
    const auto row = apply_rows_.find({acl->acl_id, port, priority});
    return row == apply_rows_.end() ? std::nullopt : std::optional(row->second);
}

// The library also tells of success when it has waited long enough without hearing of a failure; how many nodes have
// answered shows which of the two it is.
void Application::succeeded(size_t row, int answers)
{
    if (setting_ && timed_out_ && !last_try_) // what applies it may be what is to be written once more
        return ledger_.put_back(row);
    if (setting_)
        return ledger_.end(row, Outcome::stored, "not applied to a port");
    const int expected = std::max(live_nodes(), expected_);
    if (answers > 0 && answers >= expected)
        return ledger_.end(row, Outcome::programmed, "ok");
    ledger_.end(row, Outcome::aged,
                std::to_string(answers) + " of " + std::to_string(expected) + " nodes answered" + missing(row));
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
    const auto refuser = refusers_.find(row);
    const std::string where = refuser == refusers_.end() || refuser->second.empty() ? "" : " on " + refuser->second;
    ledger_.end(row, Outcome::failed, setting_ ? write_error(status) : node_error(status) + where);
}

// Heard before the library hears it.
void Application::answered(const ProtobufCMessage *status, const std::string &node)
{
    const auto key = key_of(status);
    const auto row = key ? find(*key) : std::nullopt;
    unnamed_ = unnamed_ || node.empty();
    if (!row || node.empty())
        return;
    if (number_field(status, "p_status") != 0) {
        refusers_[*row] = node;
        return;
    }
    std::vector<bool> &rows = answered_[node];
    rows.resize(ledger_.size());
    rows[*row] = true;
}

std::optional<size_t> Application::find(const Key &key) const
{
    if (const auto *ace = std::get_if<AceKey>(&key))
        return find_ace(ace->acl, ace->sn);
    const auto *apply = std::get_if<ApplyKey>(&key);
    const auto row =
        apply == nullptr ? apply_rows_.end() : apply_rows_.find({apply->acl, apply->phyid, apply->priority});
    return row == apply_rows_.end() ? std::nullopt : std::optional(row->second);
}

// Of the nodes that lived when writing began and name themselves, those that have not answered.
std::string Application::missing(size_t row) const
{
    std::vector<std::string> names;
    for (const std::string &node : nodes_) {
        const auto rows = answered_.find(node);
        if (rows == answered_.end() || !rows->second[row])
            names.push_back(node);
    }
    return names.empty() || unnamed_ ? "" : "; none from " + listed(names);
}

void Application::time_out()
{
    for (size_t row = 0; row < ledger_.size(); ++row)
        if (ledger_.outcome(row) == Outcome::waiting)
            ledger_.end(row, Outcome::timed_out, "no answer in time" + missing(row));
}

bool Application::would_refuse(const std::string &node, const std::map<uint64_t, int32_t> &statuses)
{
    bool any = false;
    for_each_record(policy_, [&](const Key &key, const Requested &) {
        const auto status = statuses.find(digest_of(key));
        const auto row = status == statuses.end() ? std::nullopt : find(key);
        if (!row)
            return;
        refusers_[*row] = node;
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
    const uint64_t before = time_outs();
    const int result = fp_udp_register_acl_handler(context_, db_, &handler);
    (void)plx_register_debug_commands(context_); // a shell that does not open is reported, and nothing else
    mgr_ = fp_udp_get_mgr();
    return time_outs() == before ? result : static_cast<int>(TQ_MOM_TIMEOUT);
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
    for (const Acl &acl : acls_) {
        if (!unended(acl.row))
            continue;
        set(*acl.policy);
        breathe();
    }
    for (const PolicyApply &apply : policy_.applies) {
        const bool waits = unended(acls_[acl_numbers_.at(apply.acl)].row);
        if (waits || !unended(apply_rows_.at({apply.acl, apply.port, apply.priority})))
            continue;
        set(apply);
        breathe();
    }
    for (const Acl &acl : acls_) {
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
    set_row(acls_[acl_numbers_.at(acl.id)].row, [&] { return mgr_->set_acl(context_, &object); });
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
    const uint8_t cls = acls_[acl_numbers_.at(apply.acl)].policy->cls;
    set_row(apply_rows_.at({apply.acl, apply.port, apply.priority}), [&]() -> int32_t {
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
