// See node_report.hpp.
#include "records/node_report.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <plx/s_policy.pb-c.h>
#include <span>
#include <tq_mom.h>

namespace plx {

namespace {

constexpr size_t longest_text = 256;
constexpr size_t longest_list = 4096;

template <typename T> std::span<T> list_of(T *elements, size_t count)
{
    return {elements, elements == nullptr ? 0 : std::min(count, longest_list)};
}

int32_t take_report(void *, const tq_mom_notification *entry, void *arg)
{
    auto &reports = *static_cast<std::map<NodeName, NodeReport> *>(arg);
    const auto name = entry->result == 0 ? node_of(entry->record) : std::nullopt;
    if (name)
        if (auto report = report_of(entry->record))
            reports[*name] = std::move(*report);
    return 0;
}

} // namespace

std::string bounded_text(const char *text)
{
    return text == nullptr ? std::string() : std::string(text, strnlen(text, longest_text));
}

NodeEntry entry_of(const PlxNode__NodeEntry &entry)
{
    return {
        bounded_text(entry.app), bounded_text(entry.name), entry.key, entry.fingerprint, entry.request, entry.status,
        bounded_text(entry.text)};
}

std::string text_of(const NodeName &name)
{
    return std::to_string(name.dev) + '/' + std::to_string(name.slot) + '/' + std::to_string(name.id);
}

std::optional<NodeName> node_name(std::string_view text)
{
    NodeName name;
    const char *at = text.data(), *const end = at + text.size();
    for (uint32_t *part : {&name.dev, &name.slot, &name.id}) {
        const auto [next, error] = std::from_chars(at, end, *part);
        const bool last = part == &name.id;
        if (error != std::errc() || (last ? next != end : next == end || *next != '/'))
            return std::nullopt;
        at = next + (last ? 0 : 1);
    }
    return name;
}

std::optional<NodeName> node_of(const ProtobufCMessage *record)
{
    if (record != nullptr && record->descriptor == &s_policy__service_node__descriptor) {
        const auto *index = reinterpret_cast<const SPolicy__ServiceNode *>(record)->index;
        return index == nullptr ? std::nullopt : std::optional(NodeName{index->dev, index->slot, index->id});
    }
    if (record != nullptr && record->descriptor == &plx_node__node_report__descriptor) {
        const auto *index = reinterpret_cast<const PlxNode__NodeReport *>(record)->index;
        return index == nullptr ? std::nullopt : std::optional(NodeName{index->dev, index->slot, index->id});
    }
    return std::nullopt;
}

std::optional<Digest> NodeReport::programmed_of(const std::string &app) const
{
    if (const auto own = applications.find(app); own != applications.end())
        return own->second.programmed;
    return applications.size() < most_applications ? std::optional(Digest()) : std::nullopt;
}

std::optional<NodeReport> report_of(const ProtobufCMessage *record)
{
    if (record == nullptr || record->descriptor != &plx_node__node_report__descriptor)
        return std::nullopt;
    const auto &told = *reinterpret_cast<const PlxNode__NodeReport *>(record);
    NodeReport report{bounded_text(told.plane),
                      told.started_ms,
                      told.time_ms,
                      told.heartbeat_ms,
                      told.generation,
                      told.last_request,
                      told.backlog,
                      told.room,
                      told.entries,
                      told.programmed,
                      told.refused};
    for (const uint32_t port : list_of(told.ports, told.n_ports))
        report.ports.push_back(port);
    for (const uint32_t attribute : list_of(told.refused_attributes, told.n_refused_attributes))
        report.refused_attributes.push_back(attribute);
    for (const PlxNode__NodeApplication *one : list_of(told.applications, told.n_applications))
        report.applications[bounded_text(one->app)] = {
            {one->programmed, one->digest_lo, one->digest_hi}, one->refused, one->last_request};
    for (const PlxNode__NodeEntry *refusal : list_of(told.refusals, told.n_refusals))
        report.refusals.push_back(entry_of(*refusal));
    return report;
}

int read_reports(tq_context *context, uint32_t db, std::map<NodeName, NodeReport> &reports)
{
    const Record whole(plx_node__node_report__descriptor);
    return tq_mom_scan_sync(context, db, whole.message(), 0, &take_report, &reports);
}

} // namespace plx
