// See redis_batch.hpp.
#include "redis_batch.hpp"

#include <algorithm>
#include <tq_mom.h>
#include <tuple>
#include <utility>

namespace mom {

void command_batch::write(redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields)
{
    const bool complete = fields.values.size() == table.fields.size();
    if (closed_ || !open_.takes(table, mode, complete, fields.values))
        make_room();
    open_.add(table, mode, complete, key, fields, writer_);
}

void command_batch::close()
{
    if (closed_ || open_.records() == 0)
        return;
    auto &table = *open_.table();
    trim_in_time(table, open_.records());
    item &added = add_item(table, open_.records());
    if (open_.known_beforehand()) {
        const size_t before = commands_.commands();
        open_.build_transaction(commands_, scripts_, writer_.name);
        added.answers = commands_.commands() - before;
        added.steps = open_.steps();
    } else {
        added.start = commands_.bytes().size();
        open_.build_call(commands_, scripts_, writer_.name, table.alone());
        added.size = commands_.bytes().size() - added.start;
    }
    added.number = ++table.latest;
    closed_ = true;
}

// Forgets the records that were collected last. A transaction may have to be done by a call after all: that is built
// now.
void command_batch::make_room()
{
    close();
    if (!closed_)
        return;
    if (item &last = items_.back(); last.steps > 0) {
        last.start = calls_.bytes().size();
        open_.build_call(calls_, scripts_, writer_.name, last.table.alone());
        last.size = calls_.bytes().size() - last.start;
    }
    open_.clear();
    closed_ = false;
}

void command_batch::remove(redis_table &table, std::string_view key)
{
    make_room();
    trim_in_time(table, 1);
    item &added = add_item(table, 1);
    added.start = commands_.bytes().size();
    scripts_.remove.begin(commands_, 3, 2);
    commands_.add(table.prefix, key).add(table.index).add(table.log);
    commands_.add(key).add(writer_.name);
    added.size = commands_.bytes().size() - added.start;
}

// A call without results, in front of what makes it due.
void command_batch::trim_in_time(redis_table &table, size_t changes)
{
    if (!table.trim_due(changes, 1, writer_.log_limit))
        return;
    item &added = add_item(table, 0);
    added.start = commands_.bytes().size();
    scripts_.trim_log(commands_, table, writer_);
    added.size = commands_.bytes().size() - added.start;
}

command_batch::item &command_batch::add_item(redis_table &table, size_t results)
{
    items_.push_back({table, 1, results, results_, 0, 0, 0, 0});
    results_ += results;
    return items_.back();
}

std::string_view command_batch::call(const item &each) const
{
    return (each.steps > 0 ? calls_ : commands_).bytes().substr(each.start, each.size);
}

bool command_batch::send(redis_link &link, const ride &along)
{
    close();
    if (failure_ == TQ_MOM_OK && sent_ < commands_.commands()) {
        failure_ = link.send(commands_.bytes().substr(sent_bytes_), commands_.commands() - sent_, along);
        sent_ = commands_.commands();
        sent_bytes_ = commands_.bytes().size();
    }
    return failure_ == TQ_MOM_OK;
}

// ---- answers

namespace {

bool succeeded(std::span<const int> results)
{
    return std::all_of(results.begin(), results.end(), [](int result) { return result == TQ_MOM_OK; });
}

} // namespace

// Judges the answers to the items, as far as they came.
void command_batch::judge(redis_link &link, const reply_tape &answers, size_t complete, int *results)
{
    reply_view reply(answers, 0);
    for (item &each : items_) {
        if (complete < each.answers)
            return;
        const std::span own(results + each.first, each.results);
        each.is = each.steps > 0 ? judge_transaction(link, each, reply, own) : judge_call(link, each, reply, own);
        complete -= each.answers;
        for (size_t i = 0; i < each.answers; ++i)
            reply = reply.next();
    }
}

command_batch::verdict command_batch::judge_call(redis_link &link, const item &each, reply_view reply,
                                                 std::span<int> results) const
{
    const auto says = [&](std::string_view what) {
        return reply.is(reply_kind::error) && reply.text().starts_with(what);
    };
    if (each.results == 0 && says("NOSCRIPT")) { // the writes behind it do not wait for that
        scripts_.trim.forget();
        return verdict::done;
    }
    if (says("NOSCRIPT") || says("NOMETA"))
        return verdict::again;
    if (!reply.is(reply_kind::array)) {
        std::fill(results.begin(), results.end(), link.judge(reply));
        return verdict::done;
    }
    std::fill(results.begin(), results.end(), int{TQ_MOM_BAD_ANSWER});
    auto one = reply.first();
    for (size_t i = 0; i < std::min(reply.size(), results.size()); ++i, one = one.next()) {
        results[i] = link.judge(one);
        if (results[i] == TQ_MOM_OK)
            take_number(each, one);
    }
    return verdict::done;
}

// Which entry of the log it was; false when that is before the one that was expected.
bool command_batch::take_number(const item &each, reply_view entry)
{
    if (!parse_log_id(entry.text(), each.table.latest))
        return true;
    each.table.own = each.table.latest;
    each.table.in_a_row = each.table.latest == each.number ? std::min(each.table.in_a_row, enough_in_a_row - 1) + 1 : 0;
    return each.table.latest >= each.number;
}

// The answers: one to MULTI, one to each queued command, those of EXEC, among them first the metadata and behind the
// records' steps the log and the index, and what looks after the stamps.
command_batch::verdict command_batch::judge_transaction(redis_link &link, const item &each, reply_view reply,
                                                        std::span<int> results) const
{
    for (size_t i = 1; i < each.answers && !reply.is(reply_kind::error); ++i)
        reply = reply.next();
    if (reply.size() != each.answers - 2) {
        std::fill(results.begin(), results.end(),
                  reply.is(reply_kind::error) ? link.judge(reply) : int{TQ_MOM_BAD_ANSWER});
        return verdict::done;
    }
    auto step = reply.first();
    if (step.at(0).text() != each.table.generation || step.at(1).text() != each.table.field_list)
        return verdict::again;
    step = step.next();
    for (int &result : results) {
        result = TQ_MOM_OK;
        for (size_t i = 0; i < each.steps; ++i, step = step.next())
            result = result == TQ_MOM_OK ? link.judge(step) : result;
    }
    const reply_view entry = step;
    for (int of_all = 0; of_all < 2; ++of_all, step = step.next())
        std::replace(results.begin(), results.end(), int{TQ_MOM_OK}, link.judge(step));
    parse_log_id(entry.text(), each.table.own);
    if (!each.table.requested() && (!take_number(each, entry) || step.is(reply_kind::error)))
        return verdict::again;
    return succeeded(results) ? verdict::done : verdict::partly;
}

// Of a transaction's records, those with something foreign in their place were listed and told all the same: takes that
// back.
void command_batch::undo(redis_link &link, const int *results) const
{
    command_buffer commands;
    int failed = TQ_MOM_OK;
    for (const item &each : items_) {
        const std::span own(results + each.first, each.results);
        if (each.steps == 0 || each.is == verdict::done ||
            std::find(own.begin(), own.end(), TQ_MOM_CORRUPT) == own.end())
            continue;
        failed = failed == TQ_MOM_OK ? scripts_.undo.load(link) : failed;
        build_undo(commands, each, own);
    }
    if (commands.commands() > 0 && failed == TQ_MOM_OK)
        std::ignore = link.exchange(commands); // each record has its result; what is not undone is a change too many
}

// The records are those of the call that stands apart.
void command_batch::build_undo(command_buffer &commands, const item &each, std::span<const int> results) const
{
    reply_tape parsed;
    const auto reader = make_reader(parsed);
    void *reply = nullptr;
    if (redisReaderFeed(reader.get(), call(each).data(), call(each).size()) != REDIS_OK ||
        redisReaderGetReply(reader.get(), &reply) != REDIS_OK)
        return;
    auto record = reply_view(parsed, 0).at(3 + keys_before_records); // behind the command, digest and count of keys
    for (const int result : results) {
        if (result == TQ_MOM_CORRUPT) {
            scripts_.undo.begin(commands, 3, 2);
            commands.add(record.text()).add(each.table.index).add(each.table.log);
            commands.add(record.text().substr(each.table.prefix.size())).add(writer_.name);
        }
        record = record.next();
    }
}

// Sends calls again, after their scripts and what they rest on.
void command_batch::repeat(redis_link &link, std::span<const item> items, int *results) const
{
    const auto repeats = [](const item &each) { return each.is == verdict::again || each.table.requested(); };
    command_buffer commands;
    int failed = scripts_.replace.load(link);
    failed = failed == TQ_MOM_OK ? scripts_.merge.load(link) : failed;
    failed = failed == TQ_MOM_OK ? scripts_.stamp.load(link) : failed;
    failed = failed == TQ_MOM_OK ? scripts_.remove.load(link) : failed;
    failed = failed == TQ_MOM_OK ? scripts_.meta.load(link) : failed;
    for (const item &each : items) {
        if (!repeats(each))
            continue;
        scripts_.make_sure(commands, each.table, each.table.field_list);
        commands.append_built(call(each), 1);
    }
    failed = failed == TQ_MOM_OK ? link.exchange(commands) : failed;
    reply_tape answers; // judging one may drop the connection, and its tape with it
    if (failed == TQ_MOM_OK)
        link.take_replies(answers);
    reply_view reply(answers, 0);
    for (const item &each : items) {
        if (!repeats(each))
            continue;
        const std::span own(results + each.first, each.results);
        std::fill(own.begin(), own.end(), failed == TQ_MOM_OK ? int{TQ_MOM_STORE_ERROR} : failed);
        reply = reply.next();
        if (failed == TQ_MOM_OK)
            judge_call(link, each, reply, own);
        reply = reply.next();
    }
}

// What the server answered before it went away is known all the same.
bool command_batch::finish(redis_link &link, std::vector<int> &results, const ride &along)
{
    const size_t before = results.size();
    reply_tape answers;
    size_t complete = 0;
    const bool sent = send(link, along);
    const int received = link.receive(answers, complete, along);
    results.resize(before + results_, sent ? received : failure_);
    int *const own = results.data() + before;
    judge(link, answers, complete, own);
    const auto again =
        std::find_if(items_.begin(), items_.end(), [](const item &each) { return each.is == verdict::again; });
    const bool as_meant = again == items_.end() && succeeded(std::span(results).subspan(before));
    if (!as_meant && sent && received == TQ_MOM_OK) {
        make_room();
        if (again != items_.end())
            repeat(link, std::span(again, items_.end()), own);
        undo(link, own);
    }
    if (!sent)
        link.drop();
    forget();
    return as_meant;
}

void command_batch::forget()
{
    commands_.clear();
    calls_.clear();
    items_.clear();
    open_.clear();
    closed_ = false;
    results_ = sent_ = sent_bytes_ = 0;
    failure_ = TQ_MOM_OK;
}

} // namespace mom
