// The text form of a record's key: what a store keeps records and their order under.
//
// Key fields in field-number order, joined by ','. A number is its decimal digits behind a letter that tells how many
// there are (7 is a7, 1500 is d1500), so that text order is number order and short numbers stay short; negative numbers
// come before, as an upper-case letter and the nines' complement of their digits (-7 is Z2). Text stands as it is, but
// ',', '%', blanks and control bytes are written %XX: no value can forge a separator, and each key has one spelling.
// Any number of leading fields therefore selects a contiguous range.
#ifndef TQ_MOM_KEY_TEXT_HPP
#define TQ_MOM_KEY_TEXT_HPP

#include <protobuf-c/protobuf-c.h>
#include <span>
#include <string>
#include <string_view>

namespace mom {

/// Keys from `begin` on, up to but without `end` where `bounded`.
struct key_range {
    std::string begin;
    std::string end;
    bool bounded = false;

    bool contains(std::string_view key) const { return key >= begin && (!bounded || key < end); }
    auto operator<=>(const key_range &) const = default;
};

using field_span = std::span<const ProtobufCFieldDescriptor>;

/// True for the types a key field may have: singular whole numbers, text and bytes.
bool can_be_key(const ProtobufCFieldDescriptor &field);

/// Appends the text of the first `count` of `fields`; a null `key` is one whose fields are all unset.
void append_key_text(std::string &out, field_span fields, const ProtobufCMessage *key, size_t count);

/// The keys whose first `count` fields equal those of `key`. `count` is at most the number of fields.
key_range select_keys(field_span fields, const ProtobufCMessage *key, size_t count);

/// Appends the key message's wire encoding; false, with `out` in an unknown state, when `text` is no such key.
[[nodiscard]] bool append_key_wire(std::string &out, field_span fields, std::string_view text);

} // namespace mom

#endif
