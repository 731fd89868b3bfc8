// How a node's changes are made: those heard of, and those found by comparing the tables with what was taken up.
#include "plane/node.hpp"

#include "plane/reading.hpp"
#include <algorithm>
#include <iterator>
#include <utility>

namespace plx::plane {

namespace {

// Changes that a plane is given together where they need not take effect together.
constexpr size_t changes_per_step = 4096;
// Answers of the plane between two looks at the clock.
constexpr size_t between_looks = 16;

} // namespace

// What the plane has from a node before this one is not programmed again, and not answered again where the store
// shows an answer to that very request.
void Node::take_up_installed()
{
    const std::map<Key, Installed> installed = plane_.installed();
    if (installed.empty())
        return;
    const AnsweredRequests answered = read_answered(context_.get(), options_.db, [this] { life_.keep_beating(); });
    for (const auto &[key, programmed] : installed) {
        life_.keep_beating();
        const auto answer = answered.find(key);
        const bool settled = answer != answered.end() && answer->second == programmed.request;
        Entry &entry = entries_[key];
        entry.request = settled ? programmed.request : 0;
        entry.fingerprint = programmed.fingerprint;
        entry.counted = true;
        report_.enter(key, entry);
    }
}

void Node::take_changes(std::vector<Change> changes)
{
    for (const Change &change : changes)
        hold_.heard(change.key);
    drop_staged(changes);
    make(std::move(changes));
}

void Node::drop_staged(std::vector<Change> &changes)
{
    std::map<std::string, bool> by_application; // staged() may ask the store: once for each
    auto known = by_application.end();
    std::erase_if(changes, [&](const Change &change) {
        if (!tables()[change.key.index()].by_application)
            return false;
        const std::string &app = application_of(change.key);
        if (known == by_application.end() || known->first != app) { // most are of the same as the one before
            known = by_application.find(app);
            if (known == by_application.end())
                known = by_application.emplace(app, commits_.staged(app)).first;
        }
        return known->second;
    });
}

// ---- comparing ------------------------------------------------------------------------------------------------------

void Node::compare()
{
    compare(nullptr);
}

// Makes what differs, of one application, all at once, or of all that are not staged. False when the store could not
// be read; then it is tried again. Removals stand first, so that what they free is there for the rest.
bool Node::compare(const std::string *app)
{
    Comparison comparison{.app = app, .number = ++comparisons_, .from_nothing = entries_.empty() && !app};
    const auto programmed = [&](bool lost_whole) { return this->programmed(comparison, lost_whole); };
    if (!scan(comparison) || (app == nullptr && !take_copies(comparison)) || !hold_.look(app == nullptr, programmed)) {
        compare_timer_.start_unless_pending(options_.retry);
        return false;
    }
    std::vector<Change> changes = removals(comparison);
    std::move(comparison.found.begin(), comparison.found.end(), std::back_inserter(changes));
    program(changes, app != nullptr ? changes.size() : changes_per_step);
    outbox_.send();
    if (app == nullptr)
        leftovers_.compared();
    return true;
}

bool Node::scan(Comparison &comparison)
{
    const auto take = [&](Key key, Requested wanted) {
        find(comparison, {std::move(key), std::move(wanted), comparison.begun});
    };
    return read_tables(context_.get(), options_.db, comparison.app, take,
                       [&](size_t table) { comparison.unreadable.insert(table); });
}

// What is wanted of an application that is held is not in its tables.
bool Node::take_copies(Comparison &comparison)
{
    std::map<std::string, uint32_t> slots;
    if (commits_.held(slots) != 0)
        return false;
    return read_copies(context_.get(), options_.db, slots, [&](Key key, Requested wanted) {
        life_.keep_beating();
        Change change{std::move(key), std::move(wanted), comparison.begun};
        if (const auto known = entries_.find(change.key); known != entries_.end())
            known->second.seen = comparison.number;
        if (needs_plane(change))
            comparison.found.push_back(std::move(change));
    });
}

void Node::find(Comparison &comparison, Change change)
{
    life_.keep_beating();
    const auto known = comparison.from_nothing ? entries_.end() : entries_.find(change.key);
    const bool is_new = known == entries_.end();
    if (!is_new)
        known->second.seen = comparison.number;
    if (comparison.trial) {
        if (differs(change))
            comparison.found.push_back(std::move(change));
        return;
    }
    const bool may_be_staged = comparison.app == nullptr && tables()[change.key.index()].by_application;
    if ((may_be_staged && commits_.staged(application_of(change.key))) || (!is_new && !needs_plane(change)))
        return;
    comparison.found.push_back(std::move(change));
    if (comparison.from_nothing && comparison.found.size() == changes_per_step) {
        program(comparison.found, changes_per_step);
        comparison.found.clear();
    }
}

// Of what is in the plane, how many of each share; without those that the walk found something of, where asked so.
Hold::Shares Node::programmed(const Comparison &comparison, bool lost_whole) const
{
    Hold::Shares shares;
    if (comparison.from_nothing && lost_whole) // all that there is was found
        return shares;
    auto share = shares.end();
    for (const auto &[key, entry] : entries_) {
        const bool same =
            share != shares.end() && share->first.first == key.index() && share->first.second == application_of(key);
        if (!same) // as of the one before, mostly
            share = shares.try_emplace(Hold::share_of(key)).first;
        ++share->second;
    }
    if (!lost_whole)
        return shares;
    for (const auto &[key, entry] : entries_)
        if (entry.seen == comparison.number)
            shares.erase(Hold::share_of(key));
    for (const Change &change : comparison.found)
        shares.erase(Hold::share_of(change.key));
    return shares;
}

// What was not found and is not held, but in tables that could not be read whole. Those that were made meanwhile, in
// a comparison inside this one, have its number.
std::vector<Change> Node::removals(const Comparison &comparison)
{
    const std::string *app = comparison.app;
    std::vector<Change> changes;
    if (comparison.from_nothing)
        return changes;
    for (const auto &[key, entry] : entries_) {
        const bool selected = app == nullptr || (tables()[key.index()].by_application && application_of(key) == *app);
        const bool found = entry.seen >= comparison.number || comparison.unreadable.contains(key.index());
        if (selected && !found && !hold_.holds(key))
            changes.push_back({key, std::nullopt});
    }
    if (app == nullptr)
        drop_staged(changes);
    return changes;
}

// ---- making ---------------------------------------------------------------------------------------------------------

void Node::make(std::vector<Change> changes)
{
    std::erase_if(changes, [this](const Change &change) { return !needs_plane(change); });
    program(changes, changes.size());
    outbox_.send();
}

// In steps of so many, none when there is nothing to make. What the node has to say of them waits to be sent.
void Node::program(std::span<const Change> changes, size_t step)
{
    while (!changes.empty()) {
        const auto now_made = changes.first(std::min(step, changes.size()));
        const milliseconds begin = now();
        const uint64_t begin_us = now_us();
        const std::vector<Answer> answers = plane_.program(now_made);
        plane_calls_.add(now_us() - begin_us);
        inbox_.plane_called(now() - begin);
        report_.plane_called();
        for (size_t i = 0; i < now_made.size(); ++i) {
            if (i % between_looks == 0)
                life_.show_when_due();
            settle(now_made[i], answers.at(i));
        }
        changes = changes.subspan(now_made.size());
        life_.report_soon();
        if (!changes.empty()) // else the answers go first
            life_.keep_beating();
    }
}

// Whether the plane has something else under the key, or has refused it.
bool Node::differs(const Change &change) const
{
    const auto known = entries_.find(change.key);
    if (known == entries_.end())
        return change.wanted.has_value();
    return !change.wanted || known->second.fingerprint != change.wanted->fingerprint() ||
           known->second.status != Status::ok;
}

// A request that was seen is done with. A new request for what is programmed already is only answered.
bool Node::needs_plane(const Change &change)
{
    const auto known = entries_.find(change.key);
    if (known == entries_.end())
        return change.wanted.has_value();
    if (!change.wanted)
        return true;
    Entry &entry = known->second;
    if (entry.fingerprint != change.wanted->fingerprint())
        return true;
    if (entry.request == change.wanted->request)
        return false;
    if (entry.status != Status::ok)
        return true;
    settle(change, plane_.confirm(change.key));
    life_.report_soon();
    return false;
}

void Node::settle(const Change &change, const Answer &answer)
{
    if (!change.wanted) {
        const auto gone = entries_.find(change.key);
        if (gone == entries_.end())
            return;
        outbox_.remove(change.key);
        if (const auto *counters = tables()[change.key.index()].counters; counters != nullptr && gone->second.counted)
            outbox_.remove(change.key, *counters);
        report_.withdraw(change.key, gone->second);
        entries_.erase(gone);
        return;
    }
    const auto [known, added] = entries_.try_emplace(change.key);
    Entry &entry = known->second;
    const bool told = entry.request != 0 && entry.request == change.wanted->request && entry.status == answer.status;
    if (!added)
        report_.withdraw(change.key, entry);
    entry.request = change.wanted->request;
    entry.fingerprint = change.wanted->fingerprint();
    entry.status = answer.status;
    report_.enter(change.key, entry, answer.text);
    entry.seen = comparisons_;
    entry.counted = entry.counted || !leftovers_.cleared(); // by the node that was here before
    if (!answer.silent && !told)
        outbox_.answer(change.key, change.wanted->request, answer.status, answer.delay, change.heard);
}

std::vector<std::pair<Key, Standing>> Node::refused(const std::string &app) const
{
    std::vector<std::pair<Key, Standing>> all;
    for (const auto &[key, entry] : entries_)
        if (entry.status != Status::ok && application_of(key) == app)
            all.emplace_back(key, entry);
    return all;
}

// What an application has in its tables, whether it is held or not, against what is programmed.
std::optional<std::vector<std::pair<Key, Standing>>> Node::try_out(const std::string &app)
{
    Comparison trial{.app = &app, .number = ++comparisons_, .from_nothing = false, .trial = true};
    if (!scan(trial))
        return std::nullopt;
    std::vector<Change> changes = removals(trial);
    std::move(trial.found.begin(), trial.found.end(), std::back_inserter(changes));
    const std::vector<Answer> answers = plane_.try_out(changes);
    std::vector<std::pair<Key, Standing>> refused;
    for (size_t i = 0; i < changes.size(); ++i)
        if (answers.at(i).status != Status::ok)
            refused.emplace_back(changes[i].key, Standing{answers[i].status, 0, 0});
    return refused;
}

bool Node::current(const Key &key, uint64_t request) const
{
    const auto entry = entries_.find(key);
    return entry != entries_.end() && entry->second.request == request;
}

} // namespace plx::plane
