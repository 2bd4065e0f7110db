-- Wireshark dissector of the vendor commands and events that the Bluetooth service exchanges with its controller.
-- Install: into ~/.local/lib/wireshark/plugins (Help, About, Folders: personal Lua plugins); Wireshark runs no Lua as root.
-- It is keyed by the company identifier in the answer to Read Local Version Information: list yours in COMPANIES. In a
-- capture without that answer, and for what comes before it: tshark -d bthci_cmd.vendor,bthal, or Decode As.

local COMPANIES = { 0xFFFF }  -- 0xFFFF: the simulated controller, which belongs to no company

local bthal = Proto("bthal", "Bluetooth controller, vendor part")

local COMMANDS = {
  [0xFC01] = "Write BD_ADDR", [0xFC18] = "Update Baud Rate", [0xFC27] = "Set Sleep Mode",
  [0xFC2E] = "Download Minidriver", [0xFC4C] = "Write RAM", [0xFC4E] = "Launch RAM",
  [0xFC79] = "Read Verbose Configuration", [0xFD53] = "Read Vendor Capabilities",
  [0xFD59] = "Read Activity Counters", [0xFD5B] = "Controller Debug Dump", [0xFD5E] = "Set Quality Report",
  [0xFD63] = "Link-Layer Event Reporting", [0xFE20] = "EWP Records", [0xFE69] = "Set Transmit Power Caps",
  [0xFE72] = "Set Download Config",
}
local EVENTS = { [0x57] = "Debug Info", [0x58] = "Quality Report", [0xD0] = "Link-Layer Event" }
local REPORTS = {
  [1] = "Monitoring", [2] = "Approaching LSTO", [3] = "A2DP Choppy", [4] = "SCO Choppy", [5] = "Root Inflammation",
  [7] = "LE Audio Choppy", [19] = "Controller Memory Dump", [20] = "Co-processor Memory Dump", [32] = "Vendor Trace",
}
local LINK_REPORTS = { [1] = true, [2] = true, [3] = true, [4] = true, [7] = true }
local STATES = { "idle", "active", "transmit", "receive" }
local CAPS = {}
for _, chain in ipairs({ "chain 0", "chain 1", "beamforming chain 0", "beamforming chain 1" }) do
  for _, kind in ipairs({ "BR", "EDR", "BLE" }) do CAPS[#CAPS + 1] = chain .. " " .. kind end
end

local fields = {}
local function field(kind, name, title, ...)
  local made = ProtoField[kind]("bthal." .. name, title, ...)
  fields[#fields + 1] = made
  return made
end
local f = {
  opcode = field("uint16", "opcode", "Command", base.HEX, COMMANDS),
  length = field("uint8", "length", "Parameter length"),
  credits = field("uint8", "credits", "Commands granted"),
  status = field("uint8", "status", "Status", base.HEX),
  bytes = field("bytes", "parameters", "Parameters"),
  address = field("ether", "address", "Device address"),
  baud = field("uint32", "baud", "Baud rate (bit/s)"),
  sleep = field("uint8", "sleep_mode", "Sleep mode"),
  ram_address = field("uint32", "ram_address", "RAM address", base.HEX),
  ram_data = field("bytes", "ram_data", "RAM contents"),
  fast = field("uint8", "fast_download", "Records without answers"),
  chip = field("uint8", "chip_id", "Chip", base.HEX),
  version = field("uint16", "capability_version", "Version of the vendor capabilities", base.HEX),
  action = field("uint8", "action", "Action", base.DEC, { [1] = "add", [2] = "remove", [3] = "remove all" }),
  enabled = field("uint8", "enabled", "Enabled"),
  interval = field("uint16", "interval", "Interval (ms)"),
  caps_format = field("uint8", "caps_format", "Format of the caps", base.DEC, { [1] = "steps of 1", [5] = "quarter steps" }),
  cap = field("uint8", "cap", "Cap"),
  entries = field("uint32", "entries", "Entries"),
  state_ms = field("uint32", "state_ms", "Time in the state (ms)"),
  last_ms = field("uint64", "last_ms", "Last entry (ms)"),
  event = field("uint8", "event", "Event", base.HEX, EVENTS),
  report = field("uint8", "report", "Report", base.DEC, REPORTS),
  handle = field("uint16", "handle", "Connection handle", base.HEX),
  error = field("uint8", "error_code", "Error code", base.HEX),
  vendor_error = field("uint8", "vendor_error", "Vendor error", base.HEX),
  rssi = field("int8", "rssi", "RSSI (dBm)"),
  power = field("int8", "power", "Transmit power (dBm)"),
  diversity = field("uint8", "diversity", "Transmission by", base.HEX),
  quality = field("uint8", "quality", "Link quality"),
  traced = field("uint8", "traced", "Packets traced"),
  timestamp = field("uint32", "timestamp", "Base timestamp"),
  delay = field("double", "delay", "Delay (ms)"),
  last_fragment = field("bool", "last_fragment", "Last fragment"),
  dump = field("bytes", "dump", "Memory"),
  direction = field("uint8", "direction", "Direction", base.HEX, { [0] = "TX", [1] = "RX" }),
  bt_time = field("uint64", "bluetooth_time", "Bluetooth time"),
  identifier = field("uint8", "identifier", "Link-layer event", base.HEX, { [0xFF] = "CONNECT_IND", [0x18] = "LL_PHY_UPDATE_IND" }),
  toggles = field("uint8", "toggles", "Toggles of the time-sync line"),
  offset = field("uint16", "offset", "Offset (us)"),
  counter = field("uint16", "event_counter", "Connection event"),
}
bthal.fields = fields

-- Adds a field if its bytes are there. Returns whether they are.
local function add(tree, item, tvb, at, size, label)
  if at + size > tvb:len() then return false end
  local added = tree:add_le(item, tvb(at, size))
  if label then added:prepend_text(label .. ": ") end
  return true
end
local function rest(tree, item, tvb, at)
  if at < tvb:len() then tree:add(item, tvb(at)) end
end
-- An address comes last byte first.
local function add_address(tree, tvb, at)
  if at + 6 > tvb:len() then return end
  local text = {}
  for i = 5, 0, -1 do text[#text + 1] = string.format("%02x", tvb(at + i, 1):uint()) end
  tree:add(f.address, tvb(at, 6), Address.ether and Address.ether(table.concat(text, ":")) or nil)
end

local command_parameters = {
  [0xFC01] = function(tree, tvb, at) rest(tree, f.bytes, tvb, at) end,
  [0xFC18] = function(tree, tvb, at) add(tree, f.baud, tvb, at + 2, 4) end,
  [0xFC27] = function(tree, tvb, at) add(tree, f.sleep, tvb, at, 1) rest(tree, f.bytes, tvb, at + 1) end,
  [0xFC4C] = function(tree, tvb, at) add(tree, f.ram_address, tvb, at, 4) rest(tree, f.ram_data, tvb, at + 4) end,
  [0xFC4E] = function(tree, tvb, at) add(tree, f.ram_address, tvb, at, 4) end,
  [0xFE72] = function(tree, tvb, at) add(tree, f.fast, tvb, at + 1, 1) end,
  [0xFD63] = function(tree, tvb, at)
    add(tree, f.action, tvb, at, 1)
    add_address(tree, tvb, at + 1)
    for event = at + 9, tvb:len() - 1 do add(tree, f.identifier, tvb, event, 1) end
  end,
  [0xFE20] = function(tree, tvb, at)
    add(tree, f.enabled, tvb, at + 1, 1)
    add(tree, f.interval, tvb, at + 4, 2)
  end,
  [0xFE69] = function(tree, tvb, at)
    add(tree, f.caps_format, tvb, at, 1)
    for i, name in ipairs(CAPS) do add(tree, f.cap, tvb, at + i, 1, name) end
  end,
}

local return_parameters = {
  [0xFC79] = function(tree, tvb, at) add(tree, f.chip, tvb, at, 1) rest(tree, f.bytes, tvb, at + 1) end,
  [0xFD53] = function(tree, tvb, at)
    rest(tree, f.bytes, tvb, at)
    add(tree, f.version, tvb, at + 8, 2)
  end,
  [0xFD59] = function(tree, tvb, at)
    for i, state in ipairs(STATES) do
      local block = at + 1 + (i - 1) * 24
      add(tree, f.entries, tvb, block, 4, state)
      add(tree, f.state_ms, tvb, block + 4, 4, state)
      add(tree, f.last_ms, tvb, block + 8, 8, state)
    end
  end,
}

local function quality_report(tree, tvb, pinfo)
  add(tree, f.report, tvb, 3, 1)
  local id = tvb:len() > 3 and tvb(3, 1):uint() or 0
  pinfo.cols.info:append(" (" .. (REPORTS[id] or "report " .. id) .. ")")
  if LINK_REPORTS[id] then
    add(tree, f.handle, tvb, 5, 2)
    local radio = tvb:len() >= 248 and 151 or 187
    add(tree, f.rssi, tvb, radio, 1, "chain 0")
    add(tree, f.rssi, tvb, radio + 1, 1, "chain 1")
    for i, name in ipairs({ "chain 0", "chain 0 again", "chain 1", "chain 1 again" }) do
      add(tree, f.power, tvb, radio + 1 + i, 1, name)
    end
    for i, name in ipairs({ "beamforming", "beamforming again", "diversity", "diversity again" }) do
      add(tree, f.diversity, tvb, radio + 5 + i, 1, name)
    end
    for i, name in ipairs({ "overall", "transmit", "receive" }) do
      if tvb:len() >= 248 then add(tree, f.quality, tvb, 228 + i, 1, name) end
    end
  elseif id == 5 then
    add(tree, f.error, tvb, 4, 1)
    add(tree, f.vendor_error, tvb, 5, 1)
  elseif id == 32 then
    add(tree, f.handle, tvb, 5, 2)
    add(tree, f.traced, tvb, 7, 1)
    add(tree, f.timestamp, tvb, 8, 4)
    for at = 12, tvb:len() - 8, 8 do
      for i, name in ipairs({ "entry", "first transmission", "first acknowledgement", "last transmission" }) do
        local value = tvb(at + 2 * (i - 1), 2)
        tree:add(f.delay, value, value:le_uint() * 0.625):prepend_text(name .. ": ")
      end
    end
  else
    rest(tree, f.dump, tvb, 4)
  end
end

local function vendor_event(tree, tvb, pinfo)
  local kind = tvb:len() > 2 and tvb(2, 1):uint() or 0
  add(tree, f.event, tvb, 2, 1)
  pinfo.cols.info:set("Rcvd Vendor Event: " .. (EVENTS[kind] or string.format("0x%02X", kind)))
  if kind == 0x58 then
    quality_report(tree, tvb, pinfo)
  elseif kind == 0x57 then
    if tvb:len() > 5 then tree:add(f.last_fragment, tvb(5, 1), tvb(5, 1):uint() ~= 0) end
    rest(tree, f.dump, tvb, 6)
  elseif kind == 0xD0 then
    add_address(tree, tvb, 3)
    add(tree, f.direction, tvb, 10, 1)
    add(tree, f.bt_time, tvb, 11, 8)
    add(tree, f.identifier, tvb, 19, 1)
    add(tree, f.toggles, tvb, 20, 1)
    add(tree, f.offset, tvb, 21, 2)
    add(tree, f.counter, tvb, 23, 2)
  else
    rest(tree, f.bytes, tvb, 3)
  end
end

-- Wireshark hands over a whole command, Command Complete or vendor event.
function bthal.dissector(tvb, pinfo, root)
  local size = tvb:len()
  if size < 2 then return 0 end
  local code, length = tvb(0, 1):uint(), tvb(1, 1):uint()
  local tree = root:add(bthal, tvb())
  if code == 0xFF and length == size - 2 then
    vendor_event(tree, tvb, pinfo)
  elseif code == 0x0E and length == size - 2 and size >= 6 then
    local opcode = tvb(3, 2):le_uint()
    add(tree, f.credits, tvb, 2, 1)
    add(tree, f.opcode, tvb, 3, 2)
    add(tree, f.status, tvb, 5, 1)
    pinfo.cols.info:set("Rcvd Command Complete (" .. (COMMANDS[opcode] or string.format("0x%04X", opcode)) .. ")")
    local parameters = return_parameters[opcode]
    if parameters then parameters(tree, tvb, 6) else rest(tree, f.bytes, tvb, 6) end
  elseif size >= 3 then
    local opcode = tvb(0, 2):le_uint()
    add(tree, f.opcode, tvb, 0, 2)
    add(tree, f.length, tvb, 2, 1)
    pinfo.cols.info:set("Sent " .. (COMMANDS[opcode] or string.format("0x%04X", opcode)))
    local parameters = command_parameters[opcode]
    if parameters then parameters(tree, tvb, 3) else rest(tree, f.bytes, tvb, 3) end
  end
  return size
end

for _, company in ipairs(COMPANIES) do DissectorTable.get("bluetooth.vendor"):add(company, bthal) end
DissectorTable.get("bthci_cmd.vendor"):add_for_decode_as(bthal)
