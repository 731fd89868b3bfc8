// Records as text: "table@db[key,key] number=value", repeated values with ";" between, those of a message with ":".
#ifndef STORE_RECORD_TEXT_HPP
#define STORE_RECORD_TEXT_HPP

#include <memory>
#include <protobuf-c/protobuf-c.h>
#include <string>
#include <vector>

/// Of policy or of the tests' own types.
class text_record {
  public:
    /// `fields` that are no "number=value" are not looked at.
    text_record(const std::string &name_and_key, const std::vector<std::string> &fields);

    const ProtobufCMessage *message() const { return message_.get(); }
    uint32_t db() const { return db_; }
    size_t key_fields() const { return key_fields_; }
    const std::vector<uint32_t> &numbers() const { return numbers_; }
    /// Name and database as they were given.
    const std::string &table() const { return table_; }

  private:
    struct free_message {
        void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
    };
    std::string table_;
    uint32_t db_ = 8;
    size_t key_fields_ = 0;
    std::vector<uint32_t> numbers_;
    std::unique_ptr<ProtobufCMessage, free_message> message_;
};

/// What was set, "!" for null.
std::string text_of_message(const ProtobufCMessage *message);

/// "%41" as that byte, "x*9" as nine of them; and back.
std::string unescaped(const std::string &text);
std::string escaped(const std::string &bytes);

std::vector<std::string> parts_of(const std::string &text, char mark);

#endif
