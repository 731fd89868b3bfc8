// See redis_scripts.hpp. In all of them `log(...)` appends a change; entries are numbered 0-1, 0-2, ... by the server.
#include "redis_scripts.hpp"

#include <tq_mom.h>

namespace mom {
namespace {

// KEYS meta; ARGV epoch-if-new, field numbers to add ("6,7" or "").
// Returns epoch, generation, fields.
constexpr char meta_text[] = R"(
local meta = KEYS[1]
if redis.call('HSETNX', meta, 'epoch', ARGV[1]) == 1 then
  redis.call('HSET', meta, 'gen', 1, 'fields', '')
end
if ARGV[2] ~= '' then
  local have, list = {}, {}
  for number in string.gmatch((redis.call('HGET', meta, 'fields') or '') .. ',' .. ARGV[2], '%d+') do
    if not have[number] then
      have[number] = true
      list[#list + 1] = tonumber(number)
    end
  end
  table.sort(list)
  redis.call('HSET', meta, 'fields', table.concat(list, ','))
end
return redis.call('HMGET', meta, 'epoch', 'gen', 'fields')
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

// KEYS index, log, meta, then each record; ARGV writer, log limit, 'replace' or 'merge', 'number' or 'generation', then
// of each record: key, fields joined, how many fields, and their numbers and bytes in turn.
// Returns for each record the number of its change, or what the server has against writing it; then nothing was done.
// A merge into a record that has other fields logs all of them; a write of all fields that the table ever had needs not
// look. A new record may be the first of its table's history.
constexpr char write_text[] = R"(
local index, log, meta, gen, fields = KEYS[1], KEYS[2], KEYS[3]
if ARGV[4] == 'generation' then
  local known = redis.call('HMGET', meta, 'gen', 'fields')
  gen = known[1]
  if not gen then
    return redis.error_reply('NOMETA the metadata is gone')
  end
  fields = select(2, string.gsub(known[2] or '', '%d+', ''))
end
local function joined(record)
  local all, parts = redis.call('HGETALL', record), {}
  for i = 1, #all, 2 do
    if all[i] ~= '#' then
      parts[#parts + 1] = all[i + 1]
    end
  end
  return table.concat(parts)
end
local function append(key, body)
  return redis.pcall('XADD', log, 'MAXLEN', '~', ARGV[2], '0-*', 'k', key, 'w', ARGV[1], 'r', body)
end
local function replace(record, had, at, last, count)
  local id = append(ARGV[at], ARGV[at + 1])
  if type(id) ~= 'string' then
    return id, 0
  end
  local stamp = gen or string.sub(id, 3)
  local added = redis.call('HSET', record, '#', stamp, unpack(ARGV, at + 3, last))
  if had + added > count + 1 then
    redis.call('DEL', record)
    redis.call('HSET', record, '#', stamp, unpack(ARGV, at + 3, last))
  end
  return id, added
end
local function merge(record, had, at, last, count)
  local added = redis.call('HSET', record, '#', gen or 0, unpack(ARGV, at + 3, last))
  local other = had + added > count + 1
  local id = append(ARGV[at], other and joined(record) or ARGV[at + 1])
  if type(id) == 'string' and not gen then
    redis.call('HSET', record, '#', string.sub(id, 3))
  end
  return id, added
end
local function overwrite(record, at, last)
  local added = redis.pcall('HSET', record, '#', gen, unpack(ARGV, at + 3, last))
  if type(added) ~= 'number' then
    return added, 0
  end
  return append(ARGV[at], ARGV[at + 1]), added
end
local write = ARGV[3] == 'replace' and replace or merge
local results, at, new = {}, 5, false
for i = 4, #KEYS do
  local count, result, added = tonumber(ARGV[at + 2]), nil, 0
  local last = at + 2 + 2 * count
  if count == fields then
    result, added = overwrite(KEYS[i], at, last)
  else
    result = redis.pcall('HLEN', KEYS[i])
    if type(result) == 'number' then
      result, added = write(KEYS[i], result, at, last, count)
    end
  end
  if added > 0 then
    redis.call('ZADD', index, 0, ARGV[at])
    new = true
  end
  results[#results + 1] = result
  at = last + 1
end
if new and redis.call('EXISTS', meta) == 0 then
  local now = redis.call('TIME')
  redis.call('HSET', meta, 'epoch', now[1] .. '.' .. now[2], 'gen', 1, 'fields', '')
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

void redis_script::begin(command_buffer &commands, size_t keys, size_t arguments) const
{
    commands.begin(3 + keys + arguments);
    commands.add("EVALSHA").add(digest_).add(keys);
}

} // namespace mom
