// See commits.hpp.
#include "plane/commits.hpp"

#include "records/policy_copy.hpp"
#include "records/record.hpp"
#include <algorithm>
#include <optional>
#include <plx/s_policy.pb-c.h>
#include <utility>
#include <vector>

namespace plx::plane {

namespace {

constexpr uint64_t longest_seconds = 60;

const SPolicy__AppCommit *marker_of(const tq_mom_notification &notification)
{
    const ProtobufCMessage *record = notification.record;
    if (record == nullptr || notification.result != 0 || record->descriptor != &s_policy__app_commit__descriptor)
        return nullptr;
    const auto *marker = reinterpret_cast<const SPolicy__AppCommit *>(record);
    return marker->index == nullptr || marker->index->apply_type == nullptr ? nullptr : marker;
}

// What cannot be read as a marker is none.
bool answered(const Found &found)
{
    return found != nullptr && found->status != TQ_MOM_DISCONNECTED && found->status != TQ_MOM_TIMEOUT &&
           found->status != TQ_MOM_LOADING;
}

} // namespace

Commits::Commits(tq_context *context, uint32_t db, Make make, std::function<void()> unknown)
    : context_(context), db_(db), make_(std::move(make)), unknown_(std::move(unknown)),
      timer_(context->master, [this] { end_due(); })
{
}

void Commits::take(const tq_mom_notification &notification)
{
    const SPolicy__AppCommit *marker = marker_of(notification);
    const bool deleted = notification.event == TQ_MOM_EVENT_DELETED;
    if (marker == nullptr || (!deleted && notification.event != TQ_MOM_EVENT_PUBLISHED))
        return;
    const std::string app = marker->index->apply_type;
    const auto known = commits_.find(app);
    if (marker->index->commit_op_type == hold_marker)
        return deleted ? release(app) : void(commits_[app] = {State::held, {}});
    if (known != commits_.end() && known->second.state == State::held)
        return;
    switch (marker->index->commit_op_type) {
    case S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE:
        if (deleted)
            finish(app, false);
        else
            open(app, marker->tm_val);
        break;
    case S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_PUBLISH:
        if (!deleted)
            finish(app, true);
        break;
    default:
        break;
    }
}

void Commits::forget()
{
    commits_.clear();
}

bool Commits::staged(const std::string &app)
{
    const auto known = commits_.find(app);
    if ((known == commits_.end() || known->second.state == State::unknown) && !look_up(app)) {
        commits_[app].state = State::unknown;
        unknown_();
        return true;
    }
    const auto commit = commits_.find(app);
    return commit != commits_.end() && (commit->second.state == State::staging || commit->second.state == State::held);
}

int32_t Commits::on_held(void *, const tq_mom_notification *entry, void *arg)
{
    const SPolicy__AppCommit *marker = marker_of(*entry);
    if (marker != nullptr && marker->index->commit_op_type == hold_marker)
        (*static_cast<std::map<std::string, uint32_t> *>(arg))[marker->index->apply_type] = marker->tm_val;
    return 0;
}

int Commits::held(std::map<std::string, uint32_t> &slots)
{
    const Record whole(s_policy__app_commit__descriptor);
    const int result = tq_mom_scan_sync(context_, db_, whole.message(), 0, &Commits::on_held, &slots);
    for (const auto &[app, slot] : slots)
        commits_[app] = {State::held, {}};
    return result;
}

// What its tables hold now is its policy.
void Commits::release(const std::string &app)
{
    const auto commit = commits_.find(app);
    if (commit == commits_.end() || commit->second.state != State::held)
        return;
    commit->second.state = State::none;
    make_(app);
}

Found Commits::read(const std::string &app, uint32_t marker)
{
    Record wanted(s_policy__app_commit__descriptor);
    wanted.set_key_text(0, app.c_str());
    wanted.set_key_number(1, marker);
    return Found(tq_mom_hgetall_sync(context_, db_, wanted.message()));
}

// Once: what the application writes later is heard of. False when the store did not answer.
bool Commits::look_up(const std::string &app)
{
    const auto hold = read(app, hold_marker);
    const auto enable = read(app, S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE);
    if (!answered(hold) || !answered(enable))
        return false;
    commits_[app] = {hold->record != nullptr ? State::held : State::none, {}};
    if (hold->record == nullptr && enable->record != nullptr)
        open(app, number_field(enable->record, "tm_val"));
    return true;
}

// A marker that is written again starts its seconds anew. Seconds beyond the bound that applications are held to are
// cut to it.
void Commits::open(const std::string &app, uint64_t seconds)
{
    commits_[app] = {State::staging, now() + std::chrono::seconds(std::min(seconds, longest_seconds))};
    end_due();
}

// Makes what was staged. `stands`: the enable marker is still there, so that later changes are staged again.
void Commits::finish(const std::string &app, bool stands)
{
    const auto commit = commits_.find(app);
    if (commit == commits_.end())
        return;
    const bool staging = commit->second.state == State::staging || commit->second.state == State::unknown;
    if (!stands)
        commit->second.state = State::none;
    if (staging && !make_(app) && stands)
        commits_[app].state = State::spent; // what is made later must not be taken for staged
}

// Makes what applications staged whose seconds have passed, and sets the timer for the next.
void Commits::end_due()
{
    const milliseconds time = now();
    std::vector<std::string> ended;
    std::optional<milliseconds> next;
    for (auto &[app, commit] : commits_) {
        if (commit.state != State::staging)
            continue;
        if (commit.until <= time) {
            commit.state = State::spent;
            ended.push_back(app);
        } else {
            next = next ? std::min(*next, commit.until) : commit.until;
        }
    }
    for (const std::string &app : ended)
        make_(app);
    if (next)
        timer_.start(*next - time);
}

} // namespace plx::plane
