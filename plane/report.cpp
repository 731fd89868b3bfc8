// See report.hpp.
#include "plane/report.hpp"

#include "plane/messages.hpp"
#include "records/node_report.hpp"
#include <algorithm>
#include <tq_mom.h>

namespace plx::plane {

namespace {

constexpr size_t refusals_kept = 64; // so that there are some when those that were told are mended
constexpr size_t refusals_told = 20;
constexpr size_t longest_text = 256;

void put(std::vector<uint32_t> &numbers, size_t &count, uint32_t *&field)
{
    count = numbers.size();
    field = numbers.data();
}

} // namespace

// A report on its way into the store.
struct Report::Told {
    PlxNode__NodeReport report = PLX_NODE__NODE_REPORT__INIT;
    Repeated<PlxNode__NodeApplication> applications{plx_node__node_application__init};
    Repeated<PlxNode__NodeEntry> refusals{plx_node__node_entry__init};
    Texts texts;
};

Report::Report(tq_context *context, const Author &author)
    : context_(context), author_(author), started_ms_(wall_clock_ms()), latest_(applications_.end())
{
}

Report::Applications::iterator Report::application(const std::string &name)
{
    if (latest_ == applications_.end() || latest_->first != name)
        latest_ = applications_.try_emplace(name).first;
    return latest_;
}

void Report::enter(const Key &key, const Standing &standing, const std::string &text)
{
    Application &application = this->application(application_of(key))->second;
    application.last_request = std::max(application.last_request, standing.request);
    if (standing.status == Status::ok) {
        if (standing.fingerprint != 0)
            application.programmed.add(digest_of(key), standing.fingerprint);
        return;
    }
    ++application.refused;
    if (refusals_.size() < refusals_kept)
        refusals_[key] = {standing, text.substr(0, longest_text)};
}

void Report::withdraw(const Key &key, const Standing &standing)
{
    const auto found = application(application_of(key));
    Application &application = found->second;
    if (standing.status != Status::ok) {
        --application.refused;
        refusals_.erase(key);
    } else if (standing.fingerprint != 0) {
        application.programmed.remove(digest_of(key), standing.fingerprint);
    }
    if (application.programmed.count + application.refused == 0) {
        applications_.erase(found);
        latest_ = applications_.end();
    }
}

void Report::tell_applications(Told &told) const
{
    for (const auto &[name, application] : applications_) {
        told.report.programmed += application.programmed.count;
        told.report.refused += application.refused;
        told.report.last_request = std::max(told.report.last_request, application.last_request);
        if (told.applications.size() == most_applications)
            continue;
        PlxNode__NodeApplication &one = told.applications.add();
        one.app = told.texts.keep(name);
        one.programmed = application.programmed.count;
        one.refused = application.refused;
        one.digest_lo = application.programmed.lo;
        one.digest_hi = application.programmed.hi;
        one.last_request = application.last_request;
    }
}

void Report::tell_refusals(Told &told) const
{
    for (const auto &[key, refusal] : refusals_) {
        if (told.refusals.size() == refusals_told)
            return;
        PlxNode__NodeEntry &entry = add_entry(told.refusals, told.texts, key);
        entry.fingerprint = refusal.standing.fingerprint;
        entry.request = refusal.standing.request;
        entry.status = static_cast<int32_t>(refusal.standing.status);
        entry.text = told.texts.keep(refusal.text);
    }
}

int Report::publish(Description plane, uint64_t backlog) const
{
    Told told;
    PlxNode__NodeReportIndex index = PLX_NODE__NODE_REPORT_INDEX__INIT;
    index.dev = author_.dev;
    index.slot = author_.slot;
    index.id = author_.id;
    PlxNode__NodeReport &report = told.report;
    report.index = &index;
    report.plane = plane.kind.data();
    report.token = author_.token;
    report.started_ms = started_ms_;
    report.time_ms = wall_clock_ms();
    report.heartbeat_ms = static_cast<uint32_t>(author_.heartbeat.count());
    report.generation = generation_;
    report.backlog = backlog;
    report.room = plane.room;
    report.entries = plane.entries;
    put(plane.ports, report.n_ports, report.ports);
    put(plane.refused_attributes, report.n_refused_attributes, report.refused_attributes);
    tell_applications(told);
    tell_refusals(told);
    told.applications.put(report.n_applications, report.applications);
    told.refusals.put(report.n_refusals, report.refusals);
    return tq_mom_set_sync(context_, author_.db, &report.base);
}

} // namespace plx::plane
