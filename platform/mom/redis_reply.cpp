// See redis_reply.hpp.
#include "redis_reply.hpp"

#include <new>
#include <tq_mom.h>

namespace mom {
namespace {

// hiredis wants an object back: the tape stands for all of them. Null tells it that there was no memory.
template <typename... Arguments> void *add_to_tape(const redisReadTask *task, Arguments... arguments) noexcept
{
    auto *tape = static_cast<reply_tape *>(task->privdata);
    try {
        tape->add(arguments...);
        return tape;
    } catch (...) {
        return nullptr;
    }
}

// The element count's type differs between versions of hiredis.
template <typename Count> void *add_array(const redisReadTask *task, Count count) noexcept
{
    return add_to_tape(task, reply_kind::array, static_cast<int64_t>(count));
}

void *add_text(const redisReadTask *task, char *text, size_t size) noexcept
{
    const auto kind = task->type == REDIS_REPLY_ERROR ? reply_kind::error : reply_kind::text;
    return add_to_tape(task, kind, int64_t{0}, std::string_view(text, size));
}

void *add_integer(const redisReadTask *task, long long value) noexcept
{
    return add_to_tape(task, reply_kind::integer, static_cast<int64_t>(value));
}

void *add_nil(const redisReadTask *task) noexcept
{
    return add_to_tape(task, reply_kind::nil, int64_t{0});
}

void free_nothing(void *) {}

redisReplyObjectFunctions tape_functions()
{
    redisReplyObjectFunctions functions{};
    functions.createString = add_text;
    functions.createArray = add_array;
    functions.createInteger = add_integer;
    functions.createNil = add_nil;
    functions.freeObject = free_nothing;
    return functions;
}

const reply_tape &nothing()
{
    static const reply_tape tape = [] {
        reply_tape nil;
        nil.add(reply_kind::nil, 0);
        return nil;
    }();
    return tape;
}

} // namespace

void reply_tape::clear()
{
    nodes_.clear();
    text_.clear();
}

void reply_tape::add(reply_kind kind, int64_t number, std::string_view text)
{
    nodes_.push_back({kind, number, text_.size(), text.size()});
    text_.append(text);
}

const reply_tape::node &reply_view::node() const
{
    return at_end() ? nothing().nodes_.front() : tape_->nodes_[at_];
}

reply_view reply_view::next() const
{
    size_t at = at_ + 1;
    for (size_t open = size(); open > 0 && at < tape_->nodes_.size(); ++at) {
        const auto &node = tape_->nodes_[at];
        open += (node.kind == reply_kind::array ? static_cast<size_t>(node.number) : 0);
        --open;
    }
    return {*tape_, at};
}

reply_view reply_view::at(size_t index) const
{
    if (index >= size())
        return {nothing(), 0};
    auto element = first();
    for (; index > 0; --index)
        element = element.next();
    return element;
}

reader_ptr make_reader(reply_tape &tape)
{
    static redisReplyObjectFunctions functions = tape_functions();
    reader_ptr reader(redisReaderCreateWithFunctions(&functions));
    if (reader == nullptr)
        throw std::bad_alloc();
    reader->privdata = &tape;
    return reader;
}

int result_of_error(std::string_view error)
{
    // The reason behind it is what counts.
    constexpr std::string_view discarded = "EXECABORT Transaction discarded because of: ";
    if (error.starts_with(discarded))
        error.remove_prefix(discarded.size());
    static constexpr struct {
        std::string_view start;
        int result;
    } known[] = {
        {"LOADING", TQ_MOM_LOADING},
        {"READONLY", TQ_MOM_READ_ONLY},
        {"OOM", TQ_MOM_STORE_FULL},
        {"NOPERM", TQ_MOM_DENIED},
        {"NOAUTH", TQ_MOM_BAD_LOGIN},
        {"WRONGPASS", TQ_MOM_BAD_LOGIN},
        {"ERR invalid password", TQ_MOM_BAD_LOGIN},
        {"ERR The user executing the script", TQ_MOM_DENIED},
        {"WRONGTYPE", TQ_MOM_CORRUPT},
        {"NOMARK", TQ_MOM_NO_MARK},
        {"NOREPLICAS", TQ_MOM_NO_REPLICAS},
    };
    for (const auto &each : known)
        if (error.starts_with(each.start))
            return each.result;
    return TQ_MOM_STORE_ERROR;
}

int result_of(reply_view reply)
{
    return reply.is(reply_kind::error) ? result_of_error(reply.text()) : TQ_MOM_OK;
}

} // namespace mom
