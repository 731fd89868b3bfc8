// See redis_scripts.hpp. In all of them `log(...)` appends a change; entries are numbered 0-1, 0-2, ... by the server.
#include "redis_scripts.hpp"

#include <random>
#include <tq_mom.h>

namespace mom {

std::string random_name()
{
    std::random_device device;
    const uint64_t name = (static_cast<uint64_t>(device()) << 32 | device()) >> 8;
    return std::to_string(name);
}

namespace {

// KEYS meta; ARGV epoch-if-new, field numbers to add ("6,7" or "").
// Returns generation, fields.
constexpr char meta_text[] = R"(
local meta = KEYS[1]
redis.call('HSETNX', meta, 'epoch', ARGV[1])
redis.call('HSETNX', meta, 'gen', 1)
redis.call('HSETNX', meta, 'fields', '')
if ARGV[2] ~= '' then
  local have, list = {}, {}
  for number in string.gmatch(redis.call('HGET', meta, 'fields') .. ',' .. ARGV[2], '%d+') do
    if not have[number] then
      have[number] = true
      list[#list + 1] = tonumber(number)
    end
  end
  table.sort(list)
  redis.call('HSET', meta, 'fields', table.concat(list, ','))
end
return redis.call('HMGET', meta, 'gen', 'fields')
)";

// KEYS meta, log; ARGV epoch-if-new, token, 'number' or 'generation'.
// Returns epoch, new generation, and the stamp below which a record was not written since.
constexpr char mark_text[] = R"(
local meta = KEYS[1]
if redis.call('HSETNX', meta, 'epoch', ARGV[1]) == 1 then
  redis.call('HSET', meta, 'gen', 1, 'fields', '')
end
local gen = redis.call('HINCRBY', meta, 'gen', 1)
redis.call('HSET', meta, 'mark:' .. gen, ARGV[2])
redis.call('HDEL', meta, 'mark:' .. (gen - 64))
local stamp = gen
if ARGV[3] == 'number' then
  stamp = 1
  if redis.call('EXISTS', KEYS[2]) == 1 then
    local info = redis.call('XINFO', 'STREAM', KEYS[2])
    for i = 1, #info, 2 do
      if info[i] == 'last-generated-id' then
        stamp = tonumber(string.sub(info[i + 1], 3)) + 1
      end
    end
  end
end
return {redis.call('HGET', meta, 'epoch'), gen, stamp}
)";

// KEYS index, log, meta, then each record; ARGV writer, what to trim the log to ('' for not now), 'replace' or 'merge',
// the table's fields where each record has all that the client knows of, the number that the first change is likely to
// get ('' where the stamp is the generation), then of each record: key, fields joined, how many fields, and their
// numbers and bytes in turn.
// Returns for each record the number of its change, or what the server has against writing it; then nothing was done.
// A record written with all fields that its table ever had has no others; any other is looked at, and a merge logs the
// fields that it keeps, too. A record stamped with a number that its change did not get is stamped again. A new record
// may be the first of its table's history.
// What this leaves to Lua's garbage collector is paid for every 50 calls, in one of them: hence no functions, and no
// more tables and texts than needed.
constexpr char write_text[] = R"(
local log, expected, gen, fields = KEYS[2], ARGV[5], nil, nil
if expected == '' then
  local known = redis.call('HMGET', KEYS[3], 'gen', 'fields')
  gen, fields = known[1], known[2]
  if not gen then
    return redis.error_reply('NOMETA the metadata is gone')
  end
else
  fields = redis.call('HGET', KEYS[3], 'fields')
end
local whole = fields == ARGV[4]
local results, at, new = {}, 6, false
for i = 4, #KEYS do
  local record, count = KEYS[i], ARGV[at + 2]
  local last = at + 2 + 2 * count
  local had, result = 0, nil
  if not whole then
    had = redis.pcall('HLEN', record)
    if type(had) ~= 'number' then
      result = had
    elseif had > 0 and ARGV[3] == 'replace' then
      redis.call('DEL', record)
    end
  end
  if not result then
    result = redis.pcall('HSET', record, '#', gen or expected, unpack(ARGV, at + 3, last))
  end
  if type(result) == 'number' then
    local body = ARGV[at + 1]
    if result > 0 then
      redis.call('ZADD', KEYS[1], 0, ARGV[at])
      new = true
    end
    if had + result > count + 1 and ARGV[3] == 'merge' then
      local all, parts = redis.call('HGETALL', record), {}
      for j = 1, #all, 2 do
        if all[j] ~= '#' then
          parts[#parts + 1] = all[j + 1]
        end
      end
      body = table.concat(parts)
    end
    result = redis.pcall('XADD', log, '0-*', 'k', ARGV[at], 'w', ARGV[1], 'r', body)
    if not gen and type(result) == 'string' then
      local number = string.sub(result, 3)
      if number ~= expected then
        redis.call('HSET', record, '#', number)
      end
      if i < #KEYS then
        expected = string.format('%.0f', number + 1)
      end
    end
  end
  results[i - 3] = result
  at = last + 1
end
if ARGV[2] ~= '' then
  redis.call('XTRIM', log, 'MAXLEN', '~', ARGV[2])
end
if new and not fields then
  local now = redis.call('TIME')
  redis.call('HSETNX', KEYS[3], 'epoch', now[1] .. '.' .. now[2])
  redis.call('HSETNX', KEYS[3], 'gen', 1)
  redis.call('HSETNX', KEYS[3], 'fields', '')
end
return results
)";

// KEYS record, index, log; ARGV key, writer, log limit.
constexpr char remove_text[] = R"(
if redis.call('HEXISTS', KEYS[1], '#') == 0 then
  return 0
end
redis.call('DEL', KEYS[1])
redis.call('ZREM', KEYS[2], ARGV[1])
redis.call('XADD', KEYS[3], 'MAXLEN', '~', ARGV[3], '0-*', 'k', ARGV[1], 'w', ARGV[2], 'd', '')
return 1
)";

// KEYS record, index, log; ARGV key, writer, log limit.
constexpr char undo_text[] = R"(
redis.call('ZREM', KEYS[2], ARGV[1])
redis.call('XADD', KEYS[3], 'MAXLEN', '~', ARGV[3], '0-*', 'k', ARGV[1], 'w', ARGV[2], 'd', '')
return 1
)";

// KEYS index, log, meta; ARGV writer, log limit, record prefix, from, to, page, stamp, epoch, generation, token.
// Returns the last key looked at, or nil when the page was the last.
constexpr char sweep_text[] = R"(
local index, log, meta = KEYS[1], KEYS[2], KEYS[3]
if redis.call('HGET', meta, 'epoch') ~= ARGV[8] or redis.call('HGET', meta, 'mark:' .. ARGV[9]) ~= ARGV[10] then
  return redis.error_reply('NOMARK the mark is gone')
end
local limit, page = tonumber(ARGV[7]), tonumber(ARGV[6])
local keys = redis.call('ZRANGEBYLEX', index, ARGV[4], ARGV[5], 'LIMIT', 0, page)
for _, key in ipairs(keys) do
  local record = ARGV[3] .. key
  local stamp = redis.pcall('HGET', record, '#')
  if type(stamp) == 'string' and tonumber(stamp) and tonumber(stamp) < limit then
    redis.call('DEL', record)
    redis.call('ZREM', index, key)
    redis.call('XADD', log, 'MAXLEN', '~', ARGV[2], '0-*', 'k', key, 'w', ARGV[1], 'd', '')
  end
end
return #keys == page and keys[#keys] or false
)";

} // namespace

redis_scripts::redis_scripts()
    : meta(meta_text), mark(mark_text), write(write_text), remove(remove_text), undo(undo_text), sweep(sweep_text)
{
}

int redis_script::load(redis_link &link)
{
    command_buffer commands;
    commands.command("SCRIPT", "LOAD", text_);
    const int exchanged = link.exchange(commands);
    if (exchanged != TQ_MOM_OK)
        return exchanged;
    const int result = link.judge(link.replies());
    if (result == TQ_MOM_OK)
        digest_ = link.replies().text();
    return result;
}

void redis_scripts::make_sure(command_buffer &commands, const redis_table &table, std::string_view fields) const
{
    meta.begin(commands, 1, 2);
    commands.add(table.meta).add(random_name()).add(fields);
}

void redis_script::begin(command_buffer &commands, size_t keys, size_t arguments) const
{
    commands.begin(3 + keys + arguments);
    commands.add("EVALSHA").add(digest_).add(keys);
}

} // namespace mom
