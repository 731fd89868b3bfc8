// What service nodes say of themselves, as tools read it. Records come from the store and are hostile: texts are cut,
// lists of any length are taken up to what a node would write.
#pragma once

#include "records/digest.hpp"
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <plx/plx_node.pb-c.h>
#include <protobuf-c/protobuf-c.h>
#include <string>
#include <tq_context.h>
#include <vector>

namespace plx {

struct NodeName {
    uint32_t dev = 0, slot = 0, id = 0;
    auto operator<=>(const NodeName &) const = default;
};
std::string text_of(const NodeName &name); // "0/1/0", as its answers carry it
std::optional<NodeName> node_name(std::string_view text);

// Of a `service_node` or `node_report` record; nullopt of any other.
std::optional<NodeName> node_of(const ProtobufCMessage *record);

struct NodeEntry {
    std::string app;
    std::string name; // "acl 10 sn 150"
    uint64_t key = 0; // digest_of() it
    uint64_t fingerprint = 0;
    uint64_t request = 0;
    int32_t status = 0;
    std::string text; // in the plane's own words; may be empty
};

struct NodeApplication {
    Digest programmed;
    uint64_t refused = 0;
    uint64_t last_request = 0;
};

NodeEntry entry_of(const PlxNode__NodeEntry &entry);
std::string bounded_text(const char *text); // of a record: "" for none, and at most 256 bytes

constexpr size_t most_applications = 256; // that a report tells of

// The fields of the record `node_report`, in its order and its units.
struct NodeReport {
    std::string plane;
    uint64_t started_ms = 0, time_ms = 0;
    uint32_t heartbeat_ms = 0;
    uint64_t generation = 0, last_request = 0, backlog = 0;
    uint64_t room = 0, entries = 0;
    uint64_t programmed = 0, refused = 0;
    std::vector<uint32_t> ports{}, refused_attributes{};
    std::map<std::string, NodeApplication> applications{};
    std::vector<NodeEntry> refusals{};

    // What it has programmed of an application. nullopt: it names as many as a report can, and not this one.
    std::optional<Digest> programmed_of(const std::string &app) const;
};

// nullopt when it is no such record.
std::optional<NodeReport> report_of(const ProtobufCMessage *record);

// The reports of all nodes, the dead ones' too: time_ms tells how old each is. The store client's result.
int read_reports(tq_context *context, uint32_t db, std::map<NodeName, NodeReport> &reports);

} // namespace plx
