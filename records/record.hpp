// The requested-state records that a forwarding plane reads, as keys and contents of its own.
//
// Everything here is generic over the six tables: a key type lists its fields in the order of its key message, and the
// records' descriptors do the rest. Records come from the store and are hostile: a missing key, string or byte field,
// or a name of any length, ends in std::nullopt or an empty field, never in a read beyond the record.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <protobuf-c/protobuf-c.h>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

namespace plx {

struct AceKey {
    std::string app; // the application type whose commit markers hold for the record: first in every key that has one
    uint32_t acl = 0;
    uint64_t sn = 0;
    auto operator<=>(const AceKey &) const = default;
    static auto fields(auto &self) { return std::tie(self.app, self.acl, self.sn); }
};

struct ApplyKey {
    std::string app; // the applying application type
    uint32_t acl = 0;
    std::string acl_app; // the application type that owns the ACL
    uint32_t phyid = 0;
    uint32_t priority = 0;
    uint32_t direction = 0;
    auto operator<=>(const ApplyKey &) const = default;
    static auto fields(auto &self)
    {
        return std::tie(self.app, self.acl, self.acl_app, self.phyid, self.priority, self.direction);
    }
};

struct PortBindKey {
    std::string app;
    uint32_t acl_cls = 0;
    uint32_t phyid = 0;
    uint32_t bind_type = 0;
    uint32_t bind_id = 0;
    auto operator<=>(const PortBindKey &) const = default;
    static auto fields(auto &self)
    {
        return std::tie(self.app, self.acl_cls, self.phyid, self.bind_type, self.bind_id);
    }
};

struct PortOffKey {
    uint32_t phyid = 0;
    auto operator<=>(const PortOffKey &) const = default;
    static auto fields(auto &self) { return std::tie(self.phyid); }
};

struct UplinkKey {
    uint32_t phyid = 0;
    uint32_t type = 0;
    auto operator<=>(const UplinkKey &) const = default;
    static auto fields(auto &self) { return std::tie(self.phyid, self.type); }
};

struct SviRouterKey { // one record per database
    auto operator<=>(const SviRouterKey &) const = default;
    static auto fields(auto &) { return std::tie(); }
};

using Key = std::variant<AceKey, ApplyKey, PortBindKey, PortOffKey, UplinkKey, SviRouterKey>;

struct KeyHash {
    size_t operator()(const Key &key) const;
};

// A table of requested state and those in which nodes tell about it; tables()[key.index()] is a key's.
struct Table {
    const ProtobufCMessageDescriptor *requested;
    const ProtobufCMessageDescriptor *status;
    const ProtobufCMessageDescriptor *counters; // or none
    bool by_application;                        // the first key field is an application type
};
std::span<const Table> tables();

// What a record asks for. Fields that its table does not have are zero or empty.
struct Requested {
    uint64_t request = 0;       // identifier of the request, repeated in its answer
    std::vector<uint8_t> value; // packed attributes
    uint64_t priority = 0;
    uint32_t acl_cls = 0;
    bool default_entry = false;
    std::string name; // of an entry, for people; no part of what is asked for

    // Equal for equal contents, whatever the request's identifier, and the same on every machine.
    uint64_t fingerprint() const;
};

// A field of bytes, which may have none.
inline std::span<const uint8_t> span_of(const ProtobufCBinaryData &bytes)
{
    return {bytes.data, bytes.data == nullptr ? 0 : bytes.len};
}

// The key of a requested-state, status or counter record; nullopt when the record has none, is of another table, or
// carries a name of more than 31 characters.
std::optional<Key> key_of(const ProtobufCMessage *record);
Requested requested_of(const ProtobufCMessage *record);

// The application type that a key belongs to, "" for a table without.
const std::string &application_of(const Key &key);

// A number field of any record, by name; 0 when the record has no such field.
uint64_t number_field(const ProtobufCMessage *record, const char *name);

// A record built for one store call. The strings of its key stay those of the caller, and must outlive it.
class Record {
  public:
    explicit Record(const ProtobufCMessageDescriptor &descriptor); // with an empty key, if its table has keys
    Record(const ProtobufCMessageDescriptor &descriptor, const Key &key);
    Record(const ProtobufCMessageDescriptor &descriptor, Key &&key) = delete;
    Record(Record &&) = default; // the record points at its key: moving keeps both in place, a copy would not

    void set_number(const char *name, uint64_t value); // no field of that name: nothing happens
    // A text of at most 127 bytes in a field beside those of the schema.
    void add_text(uint32_t number, std::string_view text);
    void set_key_text(unsigned field, const char *text);
    void set_key_number(unsigned field, uint64_t value);
    const ProtobufCMessage *message() const;

  private:
    std::vector<std::max_align_t> record_, key_;
    std::vector<uint8_t> text_;
    std::vector<ProtobufCMessageUnknownField> beside_;
};

} // namespace plx
