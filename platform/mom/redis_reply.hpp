// Answers of a server, kept as a flat list instead of a tree of objects.
//
// 1. hiredis parses; what it finds goes, in the order of the wire, onto a tape whose two buffers are reused from call
//    to call, so that an answer costs no allocation.
// 2. A reply_view is a place on a tape: it reads the reply there and steps to its elements and to what follows. Where
//    there is nothing it reads as nil, so that an answer of another shape is read without looking first.
// 3. Clearing the tape ends all views of it.
#ifndef TQ_MOM_REDIS_REPLY_HPP
#define TQ_MOM_REDIS_REPLY_HPP

#include <cstdint>
#include <hiredis/hiredis.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace mom {

enum class reply_kind : uint8_t { nil, integer, text, error, array };

class reply_tape {
  public:
    void clear();
    void add(reply_kind kind, int64_t number, std::string_view text = {});
    size_t size() const { return nodes_.size(); }
    size_t bytes() const { return text_.size() + nodes_.size() * sizeof(node); }

  private:
    friend class reply_view;
    struct node {
        reply_kind kind;
        int64_t number; // the integer, or how many elements the array has
        size_t at;
        size_t length;
    };
    std::vector<node> nodes_;
    std::string text_;
};

class reply_view {
  public:
    reply_view(const reply_tape &tape, size_t at) : tape_(&tape), at_(at) {}
    reply_kind kind() const { return node().kind; }
    bool is(reply_kind kind) const { return node().kind == kind; }
    int64_t integer() const { return node().number; }
    std::string_view text() const { return std::string_view(tape_->text_).substr(node().at, node().length); }
    size_t size() const { return is(reply_kind::array) ? static_cast<size_t>(node().number) : 0; }
    /// The first element of an array that has one.
    reply_view first() const { return {*tape_, at_ + 1}; }
    /// What follows this reply and all that it holds.
    reply_view next() const;
    /// The element at `index` of an array; a nil where there is none.
    reply_view at(size_t index) const;
    /// True for a place behind the last reply.
    bool at_end() const { return at_ >= tape_->nodes_.size(); }

  private:
    const reply_tape::node &node() const;

    const reply_tape *tape_;
    size_t at_;
};

struct reader_free {
    void operator()(redisReader *reader) const { redisReaderFree(reader); }
};
using reader_ptr = std::unique_ptr<redisReader, reader_free>;

/// A parser that writes to `tape`, which outlives it.
reader_ptr make_reader(reply_tape &tape);

/// The result code that an error reply stands for.
[[nodiscard]] int result_of_error(std::string_view error);
/// That of any reply: 0 unless it is an error.
[[nodiscard]] int result_of(reply_view reply);

} // namespace mom

#endif
