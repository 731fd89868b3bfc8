// How a node's changes are made: those heard of, and those found by comparing the tables with what was taken up.
#include "plane/node.hpp"

#include <algorithm>
#include <utility>

namespace plx::plane {

namespace {

// Of several changes of one key only the last counts.
std::vector<Change> last_of_each(std::vector<Change> changes)
{
    std::set<Key> later;
    std::vector<Change> kept;
    for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
        if (later.insert(change->key).second)
            kept.push_back(std::move(*change));
    }
    std::reverse(kept.begin(), kept.end());
    return kept;
}

struct Answered {
    std::map<Key, uint64_t> requests;
};

int32_t note_answer(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    if (const auto key = key_of(notification->record); key && notification->result == 0)
        static_cast<Answered *>(arg)->requests[*key] = number_field(notification->record, "rep_uuid");
    return 0;
}

} // namespace

// What the plane has from a node before this one is not programmed again, and not answered again where the store shows
// an answer to that very request.
void Node::take_up_installed()
{
    Answered answered;
    const std::map<Key, Installed> installed = plane_.installed();
    if (installed.empty())
        return;
    for (const Table &table : tables()) {
        const Record whole(*table.status);
        tq_mom_scan_sync(context_.get(), options_.db, whole.message(), 0, &note_answer, &answered);
    }
    for (const auto &[key, programmed] : installed) {
        const auto answer = answered.requests.find(key);
        const bool settled = answer != answered.requests.end() && answer->second == programmed.request;
        entries_[key] = {.request = settled ? programmed.request : 0, .fingerprint = programmed.fingerprint};
    }
}

void Node::take_changes()
{
    std::vector<Change> changes = last_of_each(std::exchange(inbox_, {}));
    drop_staged(changes);
    make(std::move(changes));
}

void Node::drop_staged(std::vector<Change> &changes)
{
    std::map<std::string, bool> by_application; // staged() may ask the store: once for each
    std::erase_if(changes, [&](const Change &change) {
        if (!tables()[change.key.index()].by_application)
            return false;
        const std::string &app = application_of(change.key);
        if (!by_application.contains(app))
            by_application[app] = commits_.staged(app);
        return by_application[app];
    });
}

// ---- comparing ------------------------------------------------------------------------------------------------------

void Node::compare()
{
    compare(nullptr);
}

// Makes what differs, of one application or of all that are not staged. False when the store could not be read; then it
// is tried again.
bool Node::compare(const std::string *app)
{
    Snapshot snapshot;
    if (!scan(app, snapshot)) {
        compare_timer_.start_unless_pending(options_.retry);
        return false;
    }
    make(differences(app, snapshot));
    if (app == nullptr && !cleared_)
        cleared_ = clear_leftovers(snapshot);
    return true;
}

// False when a table could not be read: the next comparison of all looks again.
bool Node::clear_leftovers(const Snapshot &snapshot)
{
    std::pair<Node *, const Snapshot *> look{this, &snapshot};
    int result = 0;
    for (const Table &table : tables())
        for (const auto *record : {table.status, table.counters})
            if (record != nullptr && result == 0)
                result = tq_mom_scan_sync(context_.get(), options_.db, Record(*record).message(), 0, &Node::on_leftover,
                                          &look);
    outbox_.schedule();
    return result == 0;
}

int32_t Node::on_leftover(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    const auto &[self, snapshot] = *static_cast<std::pair<Node *, const Snapshot *> *>(arg);
    const auto key = notification->result == 0 ? key_of(notification->record) : std::nullopt;
    if (key && snapshot->lacks(*key))
        self->outbox_.remove(*key, *notification->record->descriptor);
    return 0;
}

bool Node::scan(const std::string *app, Snapshot &snapshot)
{
    for (size_t table = 0; table < tables().size(); ++table) {
        if (app != nullptr && !tables()[table].by_application)
            continue;
        Record selection(*tables()[table].requested);
        if (app != nullptr)
            selection.set_key_text(0, app->c_str());
        snapshot.table = table;
        if (tq_mom_scan_sync(context_.get(), options_.db, selection.message(), app != nullptr ? 1 : 0, &Node::on_scan,
                             &snapshot) != 0)
            return false;
    }
    return true;
}

int32_t Node::on_scan(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *snapshot = static_cast<Snapshot *>(arg);
    auto key = notification->result == 0 ? key_of(notification->record) : std::nullopt;
    if (key)
        snapshot->records[std::move(*key)] = requested_of(notification->record);
    else
        snapshot->unreadable.insert(snapshot->table);
    return 0;
}

// Removals stand first, so that what they free is there for the rest.
std::vector<Change> Node::differences(const std::string *app, const Snapshot &snapshot)
{
    std::vector<Change> changes;
    for (const auto &[key, entry] : entries_) {
        const bool selected = app == nullptr || (tables()[key.index()].by_application && application_of(key) == *app);
        if (selected && snapshot.lacks(key))
            changes.push_back({key, std::nullopt});
    }
    for (const auto &[key, wanted] : snapshot.records)
        changes.push_back({key, wanted});
    if (app == nullptr)
        drop_staged(changes);
    return changes;
}

// ---- making ---------------------------------------------------------------------------------------------------------

void Node::make(std::vector<Change> changes)
{
    std::erase_if(changes, [this](const Change &change) { return !needs_plane(change); });
    if (!changes.empty()) {
        constexpr milliseconds longest_gathering{50};
        const milliseconds begin = now();
        const std::vector<Answer> answers = plane_.program(changes);
        gathering_ = std::min(now() - begin, longest_gathering);
        for (size_t i = 0; i < changes.size(); ++i)
            settle(changes[i], answers.at(i));
    }
    outbox_.send();
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
    settle(change, {});
    return false;
}

void Node::settle(const Change &change, const Answer &answer)
{
    if (!change.wanted) {
        entries_.erase(change.key);
        published_.erase(change.key);
        outbox_.remove(change.key);
        return;
    }
    Entry &entry = entries_[change.key];
    const bool told = entry.request != 0 && entry.request == change.wanted->request && entry.status == answer.status;
    entry = {change.wanted->request, change.wanted->fingerprint(), answer.status};
    if (!answer.silent && !told)
        outbox_.answer(change.key, change.wanted->request, answer.status, answer.delay);
}

bool Node::current(const Key &key, uint64_t request) const
{
    const auto entry = entries_.find(key);
    return entry != entries_.end() && entry->second.request == request;
}

} // namespace plx::plane
