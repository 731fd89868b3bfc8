// See redis_batch.hpp.
#include "redis_batch.hpp"

#include <algorithm>
#include <tq_mom.h>

namespace mom {

constexpr size_t records_per_call = 64; // so that no call keeps the server from others for long

bool write_call::takes(const redis_table &table, write_mode mode) const
{
    return records_ == 0 || (table_ == &table && mode_ == mode && records_ < records_per_call);
}

void write_call::add(const redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields)
{
    table_ = &table;
    mode_ = mode;
    ++records_;
    keys_.add(table.prefix, key);
    arguments_.add(key).add(fields.bytes).add(fields.values.size());
    for (const auto &field : fields.values)
        arguments_.add(field.number).add(field.bytes);
    argument_count_ += 3 + 2 * fields.values.size();
}

void write_call::build(command_buffer &into, const redis_script &script, const writer_identity &writer)
{
    script.begin(into, 3 + records_, 4 + argument_count_);
    into.add(table_->index).add(table_->log).add(table_->meta).add_built(keys_);
    into.add(writer.name).add(writer.log_limit).add(mode_ == write_mode::replace ? "replace" : "merge");
    into.add(table_->stamp_kind()).add_built(arguments_);
    keys_.clear();
    arguments_.clear();
    records_ = argument_count_ = 0;
}

void command_batch::write(const redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields)
{
    if (!open_.takes(table, mode))
        close();
    open_.add(table, mode, key, fields);
}

void command_batch::close()
{
    if (open_.records() == 0)
        return;
    add_item(open_.records());
    open_.build(commands_, scripts_.write, writer_);
}

void command_batch::add_item(size_t results)
{
    items_.push_back({commands_.bytes().size(), results, results_});
    results_ += results;
}

command_buffer &command_batch::next()
{
    close();
    add_item(1);
    return commands_;
}

std::string_view command_batch::command(const item &each) const
{
    const auto next = std::upper_bound(items_.begin(), items_.end(), each.start,
                                       [](size_t start, const item &other) { return start < other.start; });
    const size_t end = next == items_.end() ? commands_.bytes().size() : next->start;
    return commands_.bytes().substr(each.start, end - each.start);
}

bool command_batch::send(redis_link &link)
{
    close();
    if (failure_ == TQ_MOM_OK && sent_ < items_.size()) {
        failure_ = link.send(commands_.bytes().substr(sent_bytes_), items_.size() - sent_);
        sent_ = items_.size();
        sent_bytes_ = commands_.bytes().size();
    }
    return failure_ == TQ_MOM_OK;
}

namespace {

void judge_each(redis_link &link, reply_view reply, std::span<int> results)
{
    std::fill(results.begin(), results.end(), int{TQ_MOM_BAD_ANSWER});
    auto one = reply.first();
    for (size_t i = 0; i < std::min(reply.size(), results.size()); ++i, one = one.next())
        results[i] = link.judge(one);
}

} // namespace

// Judges the answers to the items, as far as they came. Returns those whose script the server did not know.
std::vector<command_batch::item> command_batch::judge(redis_link &link, const reply_tape &answers,
                                                      std::span<const item> items, int *results) const
{
    std::vector<item> unknown;
    reply_view reply(answers, 0);
    for (const item &each : items) {
        int *const own = results + each.first;
        if (reply.is(reply_kind::error) && reply.text().starts_with("NOSCRIPT"))
            unknown.push_back(each);
        else if (reply.is(reply_kind::array))
            judge_each(link, reply, std::span(own, each.results));
        else
            std::fill_n(own, each.results, link.judge(reply));
        reply = reply.next();
    }
    return unknown;
}

// Sends commands again, after their scripts.
void command_batch::repeat(redis_link &link, const std::vector<item> &items, int *results) const
{
    command_buffer commands;
    for (const item &each : items)
        commands.append_built(command(each));
    int failed = scripts_.write.load(link);
    failed = failed == TQ_MOM_OK ? scripts_.remove.load(link) : failed;
    failed = failed == TQ_MOM_OK ? link.exchange(commands) : failed;
    for (const item &each : items)
        std::fill_n(results + each.first, each.results, failed == TQ_MOM_OK ? int{TQ_MOM_STORE_ERROR} : failed);
    if (failed != TQ_MOM_OK)
        return;
    reply_tape answers; // judging one may drop the connection, and its tape with it
    link.take_replies(answers);
    judge(link, answers, items, results);
}

// What the server answered before it went away is known all the same.
bool command_batch::finish(redis_link &link, std::vector<int> &results)
{
    const size_t before = results.size();
    reply_tape answers;
    size_t complete = 0;
    const bool sent = send(link);
    const int received = link.receive(answers, complete);
    results.resize(before + results_, sent ? received : failure_);
    int *const own = results.data() + before;
    const auto unknown = judge(link, answers, std::span(items_).first(complete), own);
    if (!unknown.empty() && sent && received == TQ_MOM_OK)
        repeat(link, unknown, own);
    if (!sent)
        link.drop();
    commands_.clear();
    items_.clear();
    results_ = sent_ = sent_bytes_ = 0;
    failure_ = TQ_MOM_OK;
    return std::all_of(own, results.data() + results.size(), [](int result) { return result == TQ_MOM_OK; });
}

} // namespace mom
