// See redis_scripts.hpp. In all of them `log(...)` appends a change; entries are numbered 0-1, 0-2, ... by the server.
#include "redis_scripts.hpp"

#include <algorithm>
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

// KEYS meta; ARGV epoch-if-new, field numbers to add ("6,7" or ""), format.
// Returns generation, fields.
constexpr char meta_text[] = R"(
local meta = KEYS[1]
redis.call('HSETNX', meta, 'epoch', ARGV[1])
redis.call('HSETNX', meta, 'gen', 1)
redis.call('HSETNX', meta, 'fields', '')
if tonumber(redis.call('HGET', meta, 'format') or 1) < tonumber(ARGV[3]) then
  redis.call('HSET', meta, 'format', ARGV[3])
end
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

// KEYS meta, log, index; ARGV epoch-if-new, token, 'number' or 'generation', the selection from, to, seconds until the
// mark is of no more use, format.
// Returns epoch, new generation, its mark, the stamp below which a record was not written since, and whether there is
// any record of the selection. Marks that are of no more use go now and then; too many of them are others' making.
constexpr char mark_text[] = R"(
local meta = KEYS[1]
if redis.call('HSETNX', meta, 'epoch', ARGV[1]) == 1 then
  redis.call('HSET', meta, 'gen', 1, 'fields', '')
end
if tonumber(redis.call('HGET', meta, 'format') or 1) < tonumber(ARGV[7]) then
  redis.call('HSET', meta, 'format', ARGV[7])
end
local gen = redis.call('HINCRBY', meta, 'gen', 1)
local now = tonumber(redis.call('TIME')[1])
local mark = ARGV[2] .. ' ' .. string.format('%.0f', now + ARGV[6])
redis.call('HSET', meta, 'mark:' .. gen, mark)
if gen % 64 == 0 then
  local all = redis.call('HGETALL', meta)
  for i = 1, #all, 2 do
    local of = tonumber(string.match(all[i], '^mark:(%d+)$'))
    local expiry = tonumber(string.match(all[i + 1], '^%d+ (%d+)$'))
    if of and (not expiry or expiry < now or of < gen - 4096) then
      redis.call('HDEL', meta, all[i])
    end
  end
end
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
local any = #redis.call('ZRANGEBYLEX', KEYS[3], ARGV[4], ARGV[5], 'LIMIT', 0, 1)
return {redis.call('HGET', meta, 'epoch'), gen, mark, stamp, any}
)";

// KEYS index, log, meta, then each record; ARGV writer, the number that the first change is likely to get ('' where the
// stamp is the generation, '?' where others write, too), the numbers of the fields, then of each record: key, and the
// fields' bytes in turn.
// Returns for each record the number of its change, or what the server has against writing it; then nothing was done.
// One entry of the log tells the changes of all records. Those stamped with a number that the entry did not get are
// stamped again. A record of a table that has no fields beside these has no others; any other goes first.
// What this leaves to Lua's garbage collector is paid for every 50 calls, in one of them: hence no functions, and no
// more tables and texts than needed.
constexpr char replace_text[] = R"(
local log, stamp = KEYS[2], ARGV[2]
local known = redis.call('HMGET', KEYS[3], 'gen', 'fields')
local whole, by_number = known[2] == ARGV[3], stamp ~= ''
if not by_number then
  stamp = known[1]
  if not stamp then
    return redis.error_reply('NOMETA the metadata is gone')
  end
elseif stamp == '?' then
  local info = redis.pcall('XINFO', 'STREAM', log)
  stamp = '1'
  for i = 1, #info, 2 do
    if info[i] == 'last-generated-id' then
      stamp = string.format('%.0f', tonumber(string.sub(info[i + 1], 3)) + 1)
    end
  end
end
local values, count = {'#', stamp}, 0
for number in string.gmatch(ARGV[3], '%d+') do
  count = count + 1
  values[2 * count + 1] = number
end
local results, listed, told, at = {}, {}, {}, 4
for i = 4, #KEYS do
  local record, result = KEYS[i], nil
  for j = 1, count do
    values[2 * j + 2] = ARGV[at + j]
  end
  if not whole then
    result = redis.pcall('HLEN', record)
    if type(result) == 'number' and result > 0 then
      redis.call('DEL', record)
    end
  end
  if type(result) ~= 'table' then
    result = redis.pcall('HSET', record, unpack(values))
  end
  if type(result) == 'number' then
    if result > 0 then
      listed[#listed + 1] = 0
      listed[#listed + 1] = ARGV[at]
    end
    told[#told + 1] = 'r' .. ARGV[at]
    told[#told + 1] = table.concat(ARGV, '', at + 1, at + count)
  end
  results[i - 3] = result
  at = at + count + 1
end
local entry
if #KEYS == 4 and #told > 0 then
  entry = redis.pcall('XADD', log, '0-*', 'k', ARGV[4], 'w', ARGV[1], 'r', told[2])
elseif #told > 0 then
  entry = redis.pcall('XADD', log, '0-*', 'w', ARGV[1], unpack(told))
end
if #listed > 0 then
  redis.call('ZADD', KEYS[1], unpack(listed))
end
local misjudged = by_number and type(entry) == 'string' and string.sub(entry, 3) ~= stamp
for i = 1, #results do
  if type(results[i]) ~= 'table' then
    results[i] = entry
    if misjudged then
      redis.call('HSET', KEYS[i + 3], '#', string.sub(entry, 3))
    end
  end
end
if #listed > 0 and not known[2] then
  local now = redis.call('TIME')
  redis.call('HSETNX', KEYS[3], 'epoch', now[1] .. '.' .. now[2])
  redis.call('HSETNX', KEYS[3], 'gen', 1)
  redis.call('HSETNX', KEYS[3], 'fields', '')
end
return results
)";

// KEYS index, log, meta, then each record; ARGV writer, the table's fields where each record has all that the client
// knows of, the number that the first change is likely to get ('' where the stamp is the generation), then of each
// record: key, fields joined, how many fields, and their numbers and bytes in turn.
// The same for records that keep what they have beside these fields; the log tells those, too.
constexpr char merge_text[] = R"(
local log, expected, gen, fields = KEYS[2], ARGV[3], nil, nil
if expected == '' then
  local known = redis.call('HMGET', KEYS[3], 'gen', 'fields')
  gen, fields = known[1], known[2]
  if not gen then
    return redis.error_reply('NOMETA the metadata is gone')
  end
else
  fields = redis.call('HGET', KEYS[3], 'fields')
end
local whole = fields == ARGV[2]
local results, at, new, told = {}, 4, false, {}
for i = 4, #KEYS do
  local record, count = KEYS[i], ARGV[at + 2]
  local last = at + 2 + 2 * count
  local had, result = 0, nil
  if not whole then
    had = redis.pcall('HLEN', record)
    if type(had) ~= 'number' then
      result = had
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
    if had + result > count + 1 then
      local all, parts = redis.call('HGETALL', record), {}
      for j = 1, #all, 2 do
        if all[j] ~= '#' then
          parts[#parts + 1] = all[j + 1]
        end
      end
      body = table.concat(parts)
    end
    if #KEYS == 4 then
      result = redis.pcall('XADD', log, '0-*', 'k', ARGV[at], 'w', ARGV[1], 'r', body)
    else
      told[#told + 1] = 'r' .. ARGV[at]
      told[#told + 1] = body
    end
  end
  results[i - 3] = result
  at = last + 1
end
local entry = results[1]
if #told > 0 then
  entry = redis.pcall('XADD', log, '0-*', 'w', ARGV[1], unpack(told))
end
local misjudged = not gen and type(entry) == 'string' and string.sub(entry, 3) ~= expected
for i, result in ipairs(results) do
  if type(result) ~= 'table' then
    results[i] = entry
    if misjudged then
      redis.call('HSET', KEYS[i + 3], '#', string.sub(entry, 3))
    end
  end
end
if new and not fields then
  local now = redis.call('TIME')
  redis.call('HSETNX', KEYS[3], 'epoch', now[1] .. '.' .. now[2])
  redis.call('HSETNX', KEYS[3], 'gen', 1)
  redis.call('HSETNX', KEYS[3], 'fields', '')
end
return results
)";

// KEYS log; ARGV the number behind the one that the latest entry was to get, record prefix.
// Stamps the records of that entry, one of a group, with the number that it got where that is greater.
constexpr char stamp_text[] = R"(
if #redis.call('XRANGE', KEYS[1], '0-' .. ARGV[1], '+', 'COUNT', 1) == 0 then
  return 0
end
local entry = redis.call('XREVRANGE', KEYS[1], '+', '-', 'COUNT', 1)[1]
local number, fields = string.sub(entry[1], 3), entry[2]
for i = 3, #fields, 2 do
  redis.pcall('HSET', ARGV[2] .. string.sub(fields[i], 2), '#', number)
end
return 1
)";

// KEYS record, index, log; ARGV key, writer.
constexpr char remove_text[] = R"(
if redis.call('HEXISTS', KEYS[1], '#') == 0 then
  return 0
end
redis.call('DEL', KEYS[1])
redis.call('ZREM', KEYS[2], ARGV[1])
redis.call('XADD', KEYS[3], '0-*', 'k', ARGV[1], 'w', ARGV[2], 'd', '')
return 1
)";

// KEYS record, index, log; ARGV key, writer.
constexpr char undo_text[] = R"(
redis.call('ZREM', KEYS[2], ARGV[1])
redis.call('XADD', KEYS[3], '0-*', 'k', ARGV[1], 'w', ARGV[2], 'd', '')
return 1
)";

// KEYS log, readers; ARGV how many entries are kept, how many bytes of them for readers that live, how many go at most:
// nobody else is served meanwhile.
// A reader's field holds the number up to which it has read, and when it is taken for dead, by the server's clock.
constexpr char trim_text[] = R"(
local function trim(how, to, surplus)
  local gone = redis.call('XTRIM', KEYS[1], how, '~', to, 'LIMIT', ARGV[3])
  if gone == 0 and surplus > tonumber(ARGV[3]) then -- the server packs more of them together, and takes out whole packs
    gone = redis.call('XTRIM', KEYS[1], how, '~', to)
  end
  return gone
end
local info = redis.pcall('XINFO', 'STREAM', KEYS[1])
local keep, length, last = tonumber(ARGV[1]), 0, 0
for i = 1, #info, 2 do
  if info[i] == 'length' then
    length = info[i + 1]
  elseif info[i] == 'last-generated-id' then
    last = tonumber(string.match(info[i + 1], '^0%-(%d+)$')) or 0
  end
end
if length <= keep then
  return 0
end
local lowest, now = last, tonumber(redis.call('TIME')[1])
local readers = redis.pcall('HGETALL', KEYS[2])
for i = 1, #readers, 2 do
  local number, expiry = string.match(readers[i + 1], '^(%d+) (%d+)$')
  if not number or tonumber(expiry) < now then
    redis.call('HDEL', KEYS[2], readers[i])
  else
    lowest = math.min(lowest, tonumber(number))
  end
end
if last - lowest > keep then
  local bytes = redis.pcall('MEMORY', 'USAGE', KEYS[1])
  if type(bytes) == 'number' and bytes <= tonumber(ARGV[2]) then
    return trim('MINID', '0-' .. string.format('%.0f', lowest + 1), length - keep)
  elseif type(bytes) == 'number' then
    keep = math.max(keep, math.floor(length * ARGV[2] / bytes))
  end
end
return trim('MAXLEN', string.format('%.0f', keep), length - keep)
)";

// KEYS readers; ARGV name, the number up to which it has read, seconds for which it is to be believed.
// Names are many only where somebody makes them up: a new one then finds no place.
constexpr char here_text[] = R"(
local now = tonumber(redis.call('TIME')[1])
if redis.call('HEXISTS', KEYS[1], ARGV[1]) == 0 and redis.call('HLEN', KEYS[1]) >= 1024 then
  return 0
end
return redis.call('HSET', KEYS[1], ARGV[1], ARGV[2] .. ' ' .. string.format('%.0f', now + ARGV[3]))
)";

// KEYS index, log, meta; ARGV writer, record prefix, from, to, page, stamp, epoch, generation, token, the field that
// tells of this selection's latest rewrite.
// One entry of the log tells all deletions of a page.
// Returns how many records were deleted, and the last key looked at, or nil when the page was the last, which ends the
// rewrite. Selections that are told of are many only where somebody makes them up.
constexpr char sweep_text[] = R"(
local index, log, meta = KEYS[1], KEYS[2], KEYS[3]
if redis.call('HGET', meta, 'epoch') ~= ARGV[7] or redis.call('HGET', meta, 'mark:' .. ARGV[8]) ~= ARGV[9] then
  return redis.error_reply('NOMARK the mark is gone')
end
local limit, page, gone, told = tonumber(ARGV[6]), tonumber(ARGV[5]), 0, {}
local keys = redis.call('ZRANGEBYLEX', index, ARGV[3], ARGV[4], 'LIMIT', 0, page)
for _, key in ipairs(keys) do
  local record = ARGV[2] .. key
  local stamp = redis.pcall('HGET', record, '#')
  if type(stamp) == 'string' and tonumber(stamp) and tonumber(stamp) < limit then
    redis.call('DEL', record)
    redis.call('ZREM', index, key)
    gone = gone + 1
    told[2 * gone - 1] = 'd' .. key
    told[2 * gone] = ''
  end
end
if gone > 0 then
  redis.call('XADD', log, '0-*', 'w', ARGV[1], unpack(told))
end
local last = #keys == page and keys[#keys] or false
if not last and redis.call('HLEN', meta) < 8192 then
  redis.call('HSET', meta, ARGV[10], ARGV[8])
end
return {gone, last}
)";

} // namespace

redis_scripts::redis_scripts()
    : meta(meta_text), mark(mark_text), replace(replace_text), merge(merge_text), stamp(stamp_text),
      remove(remove_text), undo(undo_text), trim(trim_text), here(here_text), sweep(sweep_text)
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
    meta.begin(commands, 1, 3);
    commands.add(table.meta).add(random_name()).add(fields).add(table_format);
}

void redis_scripts::trim_log(command_buffer &commands, const redis_table &table, const writer_identity &writer) const
{
    trim.begin(commands, 2, 3);
    // The limit's changes, in entries like the latest ones.
    const uint64_t changes = table.latest_changes;
    const uint64_t entries = table.latest_entries;
    const uint64_t keep =
        writer.log_limit / changes * entries + (writer.log_limit % changes * entries + changes - 1) / changes;
    commands.add(table.log).add(table.readers).add(keep).add(writer.log_memory);
    // More than are added until the next time, so that a log that became too long gets shorter.
    commands.add(std::max<uint64_t>(2 * entries, 200));
}

void redis_script::begin(command_buffer &commands, size_t keys, size_t arguments) const
{
    commands.begin(3 + keys + arguments);
    commands.add("EVALSHA").add(digest_).add(keys);
}

} // namespace mom
