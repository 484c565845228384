// scripts.h - the server-side Lua scripts: each get, put and end of a unit of work is one script,
// so it is atomic against every other client of the server.
//
// Keys of queue manager QM (the braces keep them in one cluster slot):
//   kx:{QM}:qmgr         hash: created, ccsid           the queue manager exists
//   kx:{QM}:queues       hash: queue name -> maximum message length
//   kx:{QM}:owners       hash: unit-of-work token -> expiry (server ms), and "n:" token ->
//                        the number of messages it holds locked (the entry goes at zero)
//   kx:{QM}:q:NAME       stream: the messages, entry fields "md" (364 bytes) and "data"
//   kx:{QM}:gl:NAME      hash: entry id -> token, got under syncpoint (hidden, kept in place)
//   kx:{QM}:pl:NAME      hash: entry id -> token, put under syncpoint (hidden until commit)
//   kx:{QM}:w:NAME       stream of one entry: wakes waiting getters on commit and back-out
//   kx:{QM}:h:NAME       string: an entry id up to which every entry is locked or gone
//   kx:{QM}:z:NAME       string: the longest data put since the queue was last empty; scripts
//                        read at most about 4 MiB of entries at a time by it
//   kx:{QM}:c:NAME       channel: published when messages leave, hide or come back, so that
//                        browsers drop the batches they read ahead
//   kx:{QM}:b:NAME       hash: entry id -> times the message was got under syncpoint and backed
//                        out (given back by a commit that failed, a back-out or an expiry)
//   kx:{QM}:bt           hash: queue name -> back-out threshold (absent: 5; 0 for the
//                        dead-letter queue KX.DEAD.LETTER and "never")
//
// A message backed out as often as its queue's threshold moves to KX.DEAD.LETTER when the queue
// manager has that queue; otherwise it stays and destructive gets pass it over. Gets and browses
// return the count in the descriptor's BackoutCount (offset 96, the machine's byte order).
//
// A message got under syncpoint stays in its stream (a stream cannot take an id below its top
// again, so deleting it would lose its place); it is hidden by its lock until the commit
// deletes it or the back-out drops the lock. A unit of work whose owner stopped refreshing its
// expiry (the process died) is backed out by the next get that meets its locks.
#pragma once

namespace kxic {

// Shared helpers, prefixed to every script.
#define KXIC_LUA_COMMON                                                                       \
  "local function now_ms()\n"                                                                 \
  "  local t = redis.call('TIME')\n"                                                          \
  "  return tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"                      \
  "end\n"                                                                                     \
  "local alive_cache = {}\n"                                                                  \
  "local function alive(owners, token, now)\n"                                                \
  "  local a = alive_cache[token]\n"                                                          \
  "  if a == nil then\n"                                                                      \
  "    local d = redis.call('HGET', owners, token)\n"                                         \
  "    a = (d and tonumber(d) > now) and true or false\n"                                     \
  "    alive_cache[token] = a\n"                                                              \
  "  end\n"                                                                                   \
  "  return a\n"                                                                              \
  "end\n"                                                                                     \
  "local function lock_table(hash, locks)\n"                                                  \
  "  if locks == 0 or locks > 2000 then return nil end\n"                                      \
  "  local t, all = {}, redis.call('HGETALL', hash)\n"                                         \
  "  for i = 1, #all, 2 do t[all[i]] = all[i + 1] end\n"                                       \
  "  return t\n"                                                                               \
  "end\n"                                                                                     \
  "local function lock_of(hash, t, id)\n"                                                     \
  "  if t then return t[id] end\n"                                                             \
  "  return redis.call('HGET', hash, id)\n"                                                    \
  "end\n"                                                                                     \
  "local function reap(owners, token)\n"                                                      \
  "  if redis.call('HINCRBY', owners, 'n:' .. token, -1) <= 0 then\n"                          \
  "    redis.call('HDEL', owners, token, 'n:' .. token)\n"                                     \
  "  end\n"                                                                                   \
  "end\n"                                                                                     \
  "local function room(z, cap)\n"                                                              \
  "  local big = tonumber(redis.call('GET', z) or '0')\n"                                      \
  "  if big < 1 then big = 1 end\n"                                                            \
  "  return math.max(1, math.floor(cap / big))\n"                                              \
  "end\n"                                                                                     \
  "local function changed(q)\n"                                                                \
  "  redis.call('PUBLISH', (string.gsub(q, '}:q:', '}:c:', 1)), '1')\n"                       \
  "end\n"                                                                                     \
  "local function fields(e)\n"                                                                \
  "  local f, md, data = e[2], nil, nil\n"                                                    \
  "  for i = 1, #f, 2 do\n"                                                                   \
  "    if f[i] == 'md' then md = f[i + 1] elseif f[i] == 'data' then data = f[i + 1] end\n"   \
  "  end\n"                                                                                   \
  "  return md, data\n"                                                                       \
  "end\n"                                                                                     \
  "local dead_letter = 'KX.DEAD.LETTER'\n"                                                    \
  "local function with_count(md, n)\n"                                                        \
  "  return string.sub(md, 1, 96) .. struct.pack('<i4', n) .. string.sub(md, 101)\n"          \
  "end\n"                                                                                     \
  "local function threshold(q)\n"                                                             \
  "  local p, name = string.match(q, '^(.-}:)q:(.*)$')\n"                                     \
  "  local t = redis.call('HGET', p .. 'bt', name)\n"                                         \
  "  if t then return tonumber(t) end\n"                                                      \
  "  if name == dead_letter then return 0 end\n"                                              \
  "  return 5\n"                                                                              \
  "end\n"                                                                                     \
  "local function backed_out(q, id)\n"                                                        \
  "  local p, name = string.match(q, '^(.-}:)q:(.*)$')\n"                                     \
  "  local b = p .. 'b:' .. name\n"                                                           \
  "  local n = redis.call('HINCRBY', b, id, 1)\n"                                             \
  "  local t = threshold(q)\n"                                                                \
  "  if t <= 0 or n < t or name == dead_letter then return false end\n"                       \
  "  if redis.call('HEXISTS', p .. 'queues', dead_letter) == 0 then return false end\n"       \
  "  local e = redis.call('XRANGE', q, id, id)\n"                                             \
  "  if #e == 0 then return false end\n"                                                      \
  "  local md, data = fields(e[1])\n"                                                         \
  "  if not md or not data then return false end\n"                                           \
  "  local dq = p .. 'q:' .. dead_letter\n"                                                   \
  "  local nid = redis.call('XADD', dq, '*', 'md', md, 'data', data)\n"                       \
  "  redis.call('HSET', p .. 'b:' .. dead_letter, nid, n)\n"                                  \
  "  local z = p .. 'z:' .. dead_letter\n"                                                    \
  "  if #data > tonumber(redis.call('GET', z) or '0') then redis.call('SET', z, #data) end\n" \
  "  redis.call('XADD', p .. 'w:' .. dead_letter, 'MAXLEN', 1, '*', 'wake', '1')\n"            \
  "  redis.call('PUBLISH', p .. 'c:' .. dead_letter, '1')\n"                                  \
  "  redis.call('XDEL', q, id)\n"                                                             \
  "  redis.call('HDEL', b, id)\n"                                                             \
  "  return true\n"                                                                           \
  "end\n"

// Destructive get of the first visible message (matching MsgId/CorrelId when given).
// The hint key holds an id up to which every entry is locked or gone, so that a get does not
// walk over the messages of open units of work again and again. Scans that start at the hint
// carry it forward; any change that can make an entry at or before it visible again (a
// back-out of gets, a commit of puts, a message of an expired unit given back) deletes it, and
// a unit of work past its expiry makes the get scan from the start, which backs that unit out.
// A message got under syncpoint by an expired unit of work counts one more back-out; one backed
// out as often as the threshold is passed over (or was moved to the dead-letter queue).
// KEYS: q, gl, pl, owners, w, h, z, b. ARGV: limit (-1 any length), token ('' no syncpoint), ttl ms,
// msgid (''), correlid ('').
// Reply: {1, id, md, data} taken; {2, id, md, length} longer than limit, left alone;
//        {0, top id of q, top id of w} nothing there.
inline constexpr const char* kGetScript = KXIC_LUA_COMMON
    "local q, gl, pl, owners, w, h = KEYS[1], KEYS[2], KEYS[3], KEYS[4], KEYS[5], KEYS[6]\n"
    "local limit, token, ttl = tonumber(ARGV[1]), ARGV[2], tonumber(ARGV[3])\n"
    "local mid, cid = ARGV[4], ARGV[5]\n"
    "local bk = KEYS[8]\n"
    "local counted = redis.call('HLEN', bk) > 0\n"
    "local limit_bo = counted and threshold(q) or 0\n"
    "local locks = redis.call('HLEN', gl) + redis.call('HLEN', pl)\n"
    "local now = now_ms()\n"
    "local hint = false\n"
    "if locks > 0 then\n"
    "  hint = redis.call('GET', h)\n"
    "  if hint then\n"
    "    local ow = redis.call('HGETALL', owners)\n"
    "    for i = 1, #ow, 2 do\n"
    "      if string.sub(ow[i], 1, 2) ~= 'n:' and tonumber(ow[i + 1]) <= now then\n"
    "        hint = false\n"
    "        break\n"
    "      end\n"
    "    end\n"
    "  end\n"
    "end\n"
    "local glt, plt, count, grow = nil, nil, 1, 4\n"
    "if locks > 0 and not hint then\n"
    "  glt, plt = lock_table(gl, locks), lock_table(pl, locks)\n"
    "  count, grow = math.min(locks + 1, 256), 1\n"
    "end\n"
    "if (mid ~= '' or cid ~= '') and count < 64 then count = 64 end\n"
    "local most = room(KEYS[7], 4194304)\n"
    "count = math.min(count, most)\n"
    "local start = hint and ('(' .. hint) or '-'\n"
    "local run, last = true, hint\n"
    "local function keep_hint(id)\n"
    "  if not run or locks == 0 then return end\n"
    "  if id then redis.call('SET', h, id) elseif hint then return else redis.call('DEL', h) end\n"
    "end\n"
    "while true do\n"
    "  local batch = redis.call('XRANGE', q, start, '+', 'COUNT', count)\n"
    "  for _, e in ipairs(batch) do\n"
    "    local id, take, locked = e[1], true, false\n"
    "    if locks > 0 then\n"
    "      local o = lock_of(pl, plt, id)\n"
    "      if o then\n"
    "        take, locked = false, true\n"
    "        if not alive(owners, o, now) then\n"
    "          redis.call('XDEL', q, id)\n"
    "          redis.call('HDEL', pl, id)\n"
    "          reap(owners, o)\n"
    "          changed(q)\n"
    "        end\n"
    "      else\n"
    "        o = lock_of(gl, glt, id)\n"
    "        if o then\n"
    "          if alive(owners, o, now) then take, locked = false, true\n"
    "          else\n"
    "            redis.call('HDEL', gl, id)\n"
    "            reap(owners, o)\n"
    "            changed(q)\n"
    "            redis.call('DEL', h)\n"
    "            hint = false\n"
    "            if backed_out(q, id) then take = false end\n"
    "            counted = true\n"
    "            limit_bo = threshold(q)\n"
    "          end\n"
    "        end\n"
    "      end\n"
    "    end\n"
    "    local md, data, bo = nil, nil, 0\n"
    "    if take and counted then\n"
    "      bo = tonumber(redis.call('HGET', bk, id) or '0')\n"
    "      if limit_bo > 0 and bo >= limit_bo then take = false end\n"
    "    end\n"
    "    if take then\n"
    "      md, data = fields(e)\n"
    "      if md and #md == 364 then md = with_count(md, bo) end\n"
    "      if not md or not data then take = false\n"
    "      elseif mid ~= '' and string.sub(md, 49, 72) ~= mid then take = false\n"
    "      elseif cid ~= '' and string.sub(md, 73, 96) ~= cid then take = false end\n"
    "    end\n"
    "    if take then\n"
    "      if limit >= 0 and #data > limit then\n"
    "        keep_hint(last)\n"
    "        return {2, id, md, #data}\n"
    "      end\n"
    "      if token ~= '' then\n"
    "        redis.call('HSET', gl, id, token)\n"
    "        redis.call('HSET', owners, token, now + ttl)\n"
    "        redis.call('HINCRBY', owners, 'n:' .. token, 1)\n"
    "      else\n"
    "        redis.call('XDEL', q, id)\n"
    "        if bo > 0 then redis.call('HDEL', bk, id) end\n"
    "        if redis.call('XLEN', q) == 0 then redis.call('DEL', KEYS[7]) end\n"
    "      end\n"
    "      if locks > 0 or token ~= '' then locks = locks + 1 keep_hint(id) end\n"
    "      changed(q)\n"
    "      return {1, id, md, data}\n"
    "    end\n"
    "    if locked then\n"
    "      if run then last = id end\n"
    "    else\n"
    "      run = false\n"
    "    end\n"
    "  end\n"
    "  if #batch < count then break end\n"
    "  start = '(' .. batch[#batch][1]\n"
    "  count = math.min(count * grow, 256, most)\n"
    "end\n"
    "keep_hint(last)\n"
    "local top = redis.call('XREVRANGE', q, '+', '-', 'COUNT', 1)\n"
    "local wtop = redis.call('XREVRANGE', w, '+', '-', 'COUNT', 1)\n"
    "return {0, top[1] and top[1][1] or '0-0', wtop[1] and wtop[1][1] or '0-0'}\n";

// Browse batch: visible messages after a start id, up to a count and about a byte cap (at
// least one message). A message longer than the limit comes as its length in place of its data,
// so that a browse learns the length of a big message without fetching it, and fetches it
// once, when it is handed out. Descriptors carry the message's back-out count.
// KEYS: q, gl, pl, owners, z, b. ARGV: start ('-' or '(' id), count, cap, limit.
// Reply: {last id scanned or '', id1, md1, data1 or length1, id2, ...}.
inline constexpr const char* kBrowseScript = KXIC_LUA_COMMON
    "local q, gl, pl, owners = KEYS[1], KEYS[2], KEYS[3], KEYS[4]\n"
    "local cap, limit = tonumber(ARGV[3]), tonumber(ARGV[4])\n"
    "local count = math.min(tonumber(ARGV[2]), room(KEYS[5], cap))\n"
    "local locks = redis.call('HLEN', gl) + redis.call('HLEN', pl)\n"
    "local glt, plt = lock_table(gl, locks), lock_table(pl, locks)\n"
    "local now = 0\n"
    "if locks > 0 then now = now_ms() end\n"
    "local batch = redis.call('XRANGE', q, ARGV[1], '+', 'COUNT', count)\n"
    "local counted = redis.call('HLEN', KEYS[6]) > 0\n"
    "local out, total, last = {''}, 0, ''\n"
    "for _, e in ipairs(batch) do\n"
    "  local id, show = e[1], true\n"
    "  if locks > 0 then\n"
    "    if lock_of(pl, plt, id) then show = false\n"
    "    else\n"
    "      local o = lock_of(gl, glt, id)\n"
    "      if o and alive(owners, o, now) then show = false end\n"
    "    end\n"
    "  end\n"
    "  local md, data\n"
    "  if show then\n"
    "    md, data = fields(e)\n"
    "    if not md or not data then show = false end\n"
    "  end\n"
    "  if show then\n"
    "    local long = #data > limit\n"
    "    if #out > 1 and not long and total + #data > cap then break end\n"
    "    if counted and #md == 364 then\n"
    "      md = with_count(md, tonumber(redis.call('HGET', KEYS[6], id) or '0'))\n"
    "    end\n"
    "    out[#out + 1] = id\n"
    "    out[#out + 1] = md\n"
    "    if long then out[#out + 1] = #data\n"
    "    else\n"
    "      total = total + #data\n"
    "      out[#out + 1] = data\n"
    "    end\n"
    "  end\n"
    "  last = id\n"
    "end\n"
    "out[1] = last\n"
    "return out\n";

// Put: appends a message to an existing queue, hidden under the token when given.
// KEYS: queues, q, pl, owners, z. ARGV: queue name, md, data, token (''), ttl ms.
// Reply: the entry id, or nil when the queue no longer exists.
inline constexpr const char* kPutScript = KXIC_LUA_COMMON
    "if redis.call('HEXISTS', KEYS[1], ARGV[1]) == 0 then return false end\n"
    "local id = redis.call('XADD', KEYS[2], '*', 'md', ARGV[2], 'data', ARGV[3])\n"
    "if #ARGV[3] > tonumber(redis.call('GET', KEYS[5]) or '0') then\n"
    "  redis.call('SET', KEYS[5], #ARGV[3])\n"
    "end\n"
    "if ARGV[4] ~= '' then\n"
    "  redis.call('HSET', KEYS[3], id, ARGV[4])\n"
    "  redis.call('HSET', KEYS[4], ARGV[4], now_ms() + tonumber(ARGV[5]))\n"
    "  redis.call('HINCRBY', KEYS[4], 'n:' .. ARGV[4], 1)\n"
    "end\n"
    "return id\n";

// End of a unit of work: commit ('c') or back out ('b'). A commit whose locks were taken over
// (its owner expired) backs out what is left instead.
// KEYS: owners, then per queue q, gl, pl, w, h. ARGV: token, mode, then per queue: number of
// gets, their ids, number of puts, their ids.
// Reply: 1 committed, 0 backed out.
inline constexpr const char* kEndScript = KXIC_LUA_COMMON
    "local token, mode = ARGV[1], ARGV[2]\n"
    "local a, units = 3, {}\n"
    "for k = 2, #KEYS, 5 do\n"
    "  local u = {q = KEYS[k], gl = KEYS[k + 1], pl = KEYS[k + 2], w = KEYS[k + 3],\n"
    "             h = KEYS[k + 4], gets = {}, puts = {}}\n"
    "  local n = tonumber(ARGV[a])\n"
    "  for i = 1, n do u.gets[i] = ARGV[a + i] end\n"
    "  a = a + n + 1\n"
    "  n = tonumber(ARGV[a])\n"
    "  for i = 1, n do u.puts[i] = ARGV[a + i] end\n"
    "  a = a + n + 1\n"
    "  units[#units + 1] = u\n"
    "end\n"
    "if mode == 'c' then\n"
    "  for _, u in ipairs(units) do\n"
    "    for _, id in ipairs(u.gets) do\n"
    "      if redis.call('HGET', u.gl, id) ~= token then mode = 'b' end\n"
    "    end\n"
    "    for _, id in ipairs(u.puts) do\n"
    "      if redis.call('HGET', u.pl, id) ~= token then mode = 'b' end\n"
    "    end\n"
    "  end\n"
    "end\n"
    "for _, u in ipairs(units) do\n"
    "  local wake = false\n"
    "  for _, id in ipairs(u.gets) do\n"
    "    if redis.call('HGET', u.gl, id) == token then\n"
    "      redis.call('HDEL', u.gl, id)\n"
    "      if mode == 'c' then\n"
    "        redis.call('XDEL', u.q, id)\n"
    "        redis.call('HDEL', (string.gsub(u.q, '}:q:', '}:b:', 1)), id)\n"
    "      else\n"
    "        backed_out(u.q, id)\n"
    "        wake = true\n"
    "      end\n"
    "    end\n"
    "  end\n"
    "  for _, id in ipairs(u.puts) do\n"
    "    if redis.call('HGET', u.pl, id) == token then\n"
    "      redis.call('HDEL', u.pl, id)\n"
    "      if mode == 'c' then wake = true else redis.call('XDEL', u.q, id) end\n"
    "    end\n"
    "  end\n"
    "  if wake then\n"
    "    redis.call('XADD', u.w, 'MAXLEN', 1, '*', 'wake', '1')\n"
    "    redis.call('DEL', u.h)\n"
    "  end\n"
    "  if #u.gets > 0 or #u.puts > 0 then changed(u.q) end\n"
    "end\n"
    "redis.call('HDEL', KEYS[1], token, 'n:' .. token)\n"
    "if mode == 'c' then return 1 end\n"
    "return 0\n";

// Sets a queue's maximum message length when the queue exists.
// KEYS: queues. ARGV: name, length. Reply: 1, or 0 when the queue is gone.
inline constexpr const char* kSetMaxScript =
    "if redis.call('HEXISTS', KEYS[1], ARGV[1]) == 0 then return 0 end\n"
    "redis.call('HSET', KEYS[1], ARGV[1], ARGV[2])\n"
    "return 1\n";

// Keeps a live unit of work from expiring: a new expiry, only while the unit still exists.
// KEYS: owners. ARGV: token, ttl ms. Reply: 1 renewed, 0 the unit is gone.
inline constexpr const char* kRenewScript =
    "if redis.call('HEXISTS', KEYS[1], ARGV[1]) == 0 then return 0 end\n"
    "local t = redis.call('TIME')\n"
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"
    "redis.call('HSET', KEYS[1], ARGV[1], now + tonumber(ARGV[2]))\n"
    "return 1\n";

// Sets a queue's back-out threshold when the queue exists.
// KEYS: queues, bt. ARGV: name, threshold. Reply: 1, or 0 when the queue is gone.
inline constexpr const char* kSetThresholdScript =
    "if redis.call('HEXISTS', KEYS[1], ARGV[1]) == 0 then return 0 end\n"
    "redis.call('HSET', KEYS[2], ARGV[1], ARGV[2])\n"
    "return 1\n";

// Current depth: messages in the stream less those put under syncpoint and not committed.
// KEYS: q, pl. Reply: the depth.
inline constexpr const char* kDepthScript =
    "return redis.call('XLEN', KEYS[1]) - redis.call('HLEN', KEYS[2])\n";

#undef KXIC_LUA_COMMON

}  // namespace kxic
