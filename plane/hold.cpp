// See hold.hpp.
#include "plane/hold.hpp"

#include <set>
#include <utility>

namespace plx::plane {

namespace {

std::string table_name(size_t table)
{
    const std::string name = tables()[table].requested->name;
    return name.substr(name.rfind('.') + 1);
}

std::string name_of(const Hold::Share &share)
{
    return table_name(share.first) + (share.second.empty() ? "" : " of " + share.second);
}

int read_history(tq_context *context, uint32_t db, const Hold::Share &share, tq_mom_history &history)
{
    const Table &table = tables()[share.first];
    Record selection(*table.requested);
    if (table.by_application)
        selection.set_key_text(0, share.second.c_str());
    return tq_mom_history_sync(context, db, selection.message(), table.by_application ? 1 : 0, &history);
}

} // namespace

Hold::Hold(tq_context *context, Options options, std::function<void()> again)
    : context_(context), options_(std::move(options)), again_(std::move(again)),
      timer_(context->master, [this] { watch(); })
{
    if (!options_.tell)
        options_.tell = [](const std::string &) {};
}

// The walk came first: where a history is the one that was known, so were the records. A table's first write gives its
// history a name.
bool Hold::look(bool whole, const std::function<Shares(bool lost_whole)> &programmed)
{
    std::vector<uint64_t> names(tables().size());
    std::set<size_t> lost;
    const bool first = histories_.empty();
    for (size_t table = 0; table < names.size(); ++table) {
        tq_mom_history history{};
        if (read_history(context_, options_.db, {table, {}}, history) != 0)
            return false;
        names[table] = history.name;
        if (first || (histories_[table] != 0 && histories_[table] != history.name))
            lost.insert(table);
    }
    Shares shares = lost.empty() ? Shares() : programmed(first);
    if (first && !whole && !shares.empty())
        return false;
    histories_ = std::move(names);
    std::erase_if(shares, [&](const auto &share) { return !lost.contains(share.first.first); });
    take(shares);
    return true;
}

void Hold::heard(const Key &key)
{
    tq_mom_history history{};
    const size_t table = key.index();
    if (!histories_.empty() && histories_[table] == 0 && read_history(context_, options_.db, {table, {}}, history) == 0)
        histories_[table] = history.name;
}

void Hold::take(const Shares &shares)
{
    for (const auto &[share, entries] : shares) {
        if (written_again(share))
            continue;
        held_[share] = options_.longest.count() == 0 ? Until() : now() + options_.longest;
        options_.tell("the store has lost " + name_of(share) + ": " + std::to_string(entries) +
                      " stay programmed until their application has written all again" +
                      (options_.longest.count() == 0
                           ? ""
                           : ", for " + std::to_string(options_.longest.count() / 1000) + " s at most"));
    }
    if (!held_.empty())
        timer_.start(options_.between_looks);
}

// What cannot be asked has not happened.
bool Hold::written_again(const Share &share) const
{
    tq_mom_history history{};
    return read_history(context_, options_.db, share, history) == 0 && history.rewritten != 0;
}

void Hold::let_go(const std::function<bool(const Share &, const Until &)> &of, const char *why)
{
    const size_t gone = std::erase_if(held_, [&](const auto &held) {
        const bool goes = of(held.first, held.second);
        if (goes)
            options_.tell(name_of(held.first) + " is not held any more: " + why);
        return goes;
    });
    if (!held_.empty())
        timer_.start(options_.between_looks);
    if (gone != 0)
        again_();
}

void Hold::release()
{
    let_go([](const Share &, const Until &) { return true; }, "an operator has said so");
}

void Hold::watch()
{
    const milliseconds time = now();
    let_go([this](const Share &share, const Until &) { return written_again(share); },
           "its application has written all again");
    let_go([time](const Share &, const Until &until) { return until && *until <= time; }, "the time is over");
}

} // namespace plx::plane
