-- For wrk: POSTs calls of WebAPIs, in turn, and prints what came of it as the last line:
-- requests, seconds, milliseconds that one answer in a hundred exceeds, failures.
--   wrk ... -s post.lua URL -- REQUESTS TOKEN_FILE BODY_FILE...
-- After REQUESTS answers it sends no more until wrk's time is up; 0 is no limit.

local function read(path)
  local file = assert(io.open(path))
  local text = file:read("*a")
  file:close()
  return text
end

-- Each in a function of its own: wrk is fastest when there is neither `request` nor `response`.
local function send_in_turn(calls)
  local sent = 0
  function request()
    sent = sent % #calls + 1
    return calls[sent]
  end
end

local function stop_after(wanted)
  local answered = 0
  function response()
    answered = answered + 1
    if answered >= wanted then
      wrk.thread:stop()
    end
  end
end

function init(args)
  wrk.method = "POST"
  wrk.path = "/webapi"
  wrk.headers["Content-Type"] = "application/json"
  wrk.headers["Authorization"] = "Bearer " .. read(args[2])
  local calls = {}
  for i = 3, #args do
    wrk.body = read(args[i])
    calls[#calls + 1] = wrk.format()
  end
  if #calls > 1 then
    send_in_turn(calls)
  end
  if tonumber(args[1]) > 0 then
    stop_after(tonumber(args[1]))
  end
end

function done(summary, latency)
  local errors = summary.errors
  local failures = errors.connect + errors.read + errors.write + errors.status + errors.timeout
  print(string.format("%d %.6f %.6f %d", summary.requests, summary.duration / 1e6,
                      latency:percentile(99) / 1000, failures))
end
