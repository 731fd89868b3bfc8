// What a server and its client need at least for records, their index and their log, without this library: bench_scale
// measures the CPU time of both.
//
//     raw_writer SOCKET MODEL COUNT
//
// Writes so many copies of the hash under the key MODEL, each with a member of an index and an entry of a log that
// carries the same bytes, in a pipeline of 64.
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Free {
    void operator()(redisContext *context) const { redisFree(context); }
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Connection = std::unique_ptr<redisContext, Free>;
using Reply = std::unique_ptr<redisReply, Free>;
using Words = std::vector<std::string>;

constexpr size_t most_words = 64;
constexpr int pipelined = 64;
constexpr int commands_of_a_record = 3;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "raw_writer: %s\n", what);
    std::exit(1);
}

void append(redisContext &connection, std::initializer_list<std::string_view> head, const Words &fields)
{
    const char *words[most_words];
    size_t sizes[most_words], count = 0;
    const auto add = [&](std::string_view word) {
        words[count] = word.data();
        sizes[count++] = word.size();
    };
    if (head.size() + fields.size() > most_words)
        fail("the model has too many fields");
    std::for_each(head.begin(), head.end(), add);
    std::for_each(fields.begin(), fields.end(), add);
    redisAppendCommandArgv(&connection, static_cast<int>(count), words, sizes);
}

Reply answer(redisContext &connection)
{
    void *reply = nullptr;
    if (redisGetReply(&connection, &reply) != REDIS_OK)
        fail(connection.errstr);
    Reply taken(static_cast<redisReply *>(reply));
    if (taken->type == REDIS_REPLY_ERROR)
        fail(taken->str);
    return taken;
}

Words fields_of(redisContext &connection, const std::string &model)
{
    append(connection, {"HGETALL", model}, {});
    const Reply reply = answer(connection);
    Words fields;
    for (size_t at = 0; at < reply->elements; ++at)
        fields.emplace_back(reply->element[at]->str, reply->element[at]->len);
    if (fields.empty())
        fail("there is no model");
    return fields;
}

void write(redisContext &connection, const Words &fields, int first, int behind)
{
    for (int number = first; number < behind; ++number) {
        const std::string key = "raw,a1,f" + std::to_string(100'000 + number);
        append(connection, {"HSET", "raw:" + key}, fields);
        append(connection, {"ZADD", "raw/index", "0", key}, {});
        append(connection, {"XADD", "raw/log", "MAXLEN", "~", "100000", "*", "key", key}, fields);
    }
    for (int answers = commands_of_a_record * (behind - first); answers > 0; --answers)
        answer(connection);
}

} // namespace

int main(int count, char **arguments)
{
    if (count != 4)
        fail("SOCKET MODEL COUNT");
    const Connection connection(redisConnectUnix(arguments[1]));
    if (connection == nullptr || connection->err != 0)
        fail("cannot connect");
    const Words fields = fields_of(*connection, arguments[2]);
    const int records = std::atoi(arguments[3]);
    for (int number = 0; number < records; number += pipelined)
        write(*connection, fields, number, std::min(number + pipelined, records));
    return 0;
}
