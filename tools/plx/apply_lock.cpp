// See apply_lock.hpp.
#include "apply_lock.hpp"

#include <plx/plx_node.pb-c.h>
#include <pwd.h>
#include <tq_mom.h>
#include <unistd.h>

namespace plx::tool {

namespace {

constexpr int renewals_before_the_end = 5;

std::string name_of_this_process()
{
    char host[65] = "";
    gethostname(host, sizeof host - 1);
    const passwd *user = getpwuid(geteuid());
    return std::string(host) + ", process " + std::to_string(getpid()) + ", user " +
           (user == nullptr ? std::to_string(geteuid()) : user->pw_name);
}

// Different for every process, and in the order in which they came where clocks agree.
uint64_t number_of_this_process()
{
    return wall_clock_ms() << 22U | (static_cast<uint64_t>(getpid()) & 0x3fffffU);
}

struct LockRecord {
    PlxNode__ApplyLockIndex index = PLX_NODE__APPLY_LOCK_INDEX__INIT;
    PlxNode__ApplyLock record = PLX_NODE__APPLY_LOCK__INIT;

    LockRecord(const std::string &app, uint64_t number)
    {
        index.app = const_cast<char *>(app.c_str()); // the store client only reads it
        index.number = number;
        record.index = &index;
    }
};

} // namespace

ApplyLock::ApplyLock(tq_context *context, uint32_t db, std::string app, std::chrono::seconds lasts)
    : context_(context), db_(db), app_(std::move(app)), lasts_(lasts), owner_(name_of_this_process()),
      number_(number_of_this_process()), renewal_(context->master, [this] { write(); })
{
}

ApplyLock::~ApplyLock()
{
    give_up();
}

// Who writes its claim before it looks cannot miss one that was written before.
int ApplyLock::take()
{
    claimed_ = true;
    Others others{.self = this};
    int result = write();
    result = result != 0 ? result : look(others);
    other_ = others.owner;
    const bool alone = others.lowest == UINT64_MAX;
    if (result == 0 && alone) {
        held_ = true;
        result = write();
    } else if (result != 0 || others.held || others.lowest < number_) {
        give_up();
    }
    return result;
}

int ApplyLock::look(Others &others) const
{
    const LockRecord wanted(app_, 0);
    return tq_mom_scan_sync(context_, db_, &wanted.record.base, 1, &ApplyLock::on_record, &others);
}

// One whose time is over is in nobody's way, and is taken away.
int32_t ApplyLock::on_record(void *, const tq_mom_notification *entry, void *arg)
{
    auto &others = *static_cast<Others *>(arg);
    const auto *record = reinterpret_cast<const PlxNode__ApplyLock *>(entry->record);
    if (entry->result != 0 || record == nullptr || record->index == nullptr ||
        record->index->number == others.self->number_)
        return 0;
    if (record->until_ms < wall_clock_ms()) {
        const LockRecord gone(others.self->app_, record->index->number);
        tq_mom_del_sync(others.self->context_, others.self->db_, &gone.record.base);
        return 0;
    }
    if (record->held != 0 || !others.held)
        others.owner = record->owner == nullptr ? "" : record->owner;
    others.held = others.held || record->held != 0;
    others.lowest = std::min(others.lowest, record->index->number);
    return 0;
}

int ApplyLock::write()
{
    LockRecord lock(app_, number_);
    lock.record.owner = owner_.data();
    lock.record.until_ms = wall_clock_ms() + static_cast<uint64_t>(lasts_.count());
    lock.record.held = held_ ? 1 : 0;
    renewal_.start(lasts_ / renewals_before_the_end);
    return tq_mom_set_sync(context_, db_, &lock.record.base);
}

void ApplyLock::give_up()
{
    renewal_.cancel();
    const LockRecord lock(app_, number_);
    if (claimed_)
        tq_mom_del_sync(context_, db_, &lock.record.base);
    claimed_ = held_ = false;
}

} // namespace plx::tool
