-- Wireshark dissector for both link protocols, for the files that
-- vantrel-launch --capture writes:
--
--   wireshark -X lua_script:vantrel.lua FILE.pcapng
--   tshark -X lua_script:vantrel.lua -r FILE.pcapng -V -Y 'vantrel.stream == 3'
--
-- A packet of the file is whatever crossed the link at once, so messages are
-- put together from the byte stream of each direction of each connection; one
-- is shown in the packet that brings its last byte. The file's interface
-- description says which protocol it is; where it does not, the first bytes do,
-- and the preference "protocol" overrules both.

local vantrel = Proto("vantrel", "Vantrel link")

local V1, V2 = "protocol 1", "protocol 2"
local FROM_COMPANION, TO_COMPANION = 1, 2  -- as in the packet's flags

vantrel.prefs.protocol = Pref.enum("protocol", 0, "The link protocol",
    {{1, "automatic", 0}, {2, "1 or 5", 1}, {3, "20", 2}}, false)

-- Fields -------------------------------------------------------------------

local V1_NAMES = {
  "TCP_CONNECT", "TCP_CLOSE", "TCP_DATA", "UDP_DATAGRAM", "PING_ECHO",
  "TCP_WRITE_ACK", "UDP_FAILURE", "PULL_REQUEST", "PULL_DATA", "PACKAGE_NAME",
  "ACTIVE_NETWORK_STATE", "PUSH_REQUEST", "PUSH_DATA", "UDP_DATAGRAM_V2",
  "UDP_FAILURE_V2", "HANDSHAKE", "HANDSHAKE_ACK", "HANDSHAKE_DONE",
}
local V2_NAMES = {
  [0] = "UNSPECIFIED", "TEARDOWN", "HANDSHAKE_START", "HANDSHAKE_ACK",
  "HANDSHAKE_DONE", "TCP_CONNECT", "TCP_CONNECT_ACK", "TCP_CLOSE", "TCP_WRITE",
  "TCP_WRITE_ACK", "UDP_SEND", "UDP_FAILURE", "DNS_SERVERS", "PACKAGE_NAMES",
  "NETWORK_STATE", "RESERVED_15",
}

local function field(make, name, label, ...)
  return make("vantrel." .. name, label, ...)
end

local f = {
  direction = field(ProtoField.uint8, "direction", "Direction", base.DEC,
                    {[1] = "from the companion", [2] = "to the companion"}),
  v1_type = field(ProtoField.uint8, "v1.type", "Type", base.DEC, V1_NAMES),
  v2_type = field(ProtoField.uint32, "v2.type", "Type", base.DEC, V2_NAMES),
  stream = field(ProtoField.uint32, "stream", "Stream"),
  request = field(ProtoField.uint32, "request", "Request"),
  count = field(ProtoField.uint32, "count", "Number of bytes"),
  uid = field(ProtoField.uint32, "uid", "UID"),
  package = field(ProtoField.string, "package", "Package"),
  local_ip = field(ProtoField.ipv4, "local.ip", "Application's address"),
  local_ip6 = field(ProtoField.ipv6, "local.ip6", "Application's address"),
  local_port = field(ProtoField.uint16, "local.port", "Application's port"),
  remote_ip = field(ProtoField.ipv4, "remote.ip", "Remote address"),
  remote_ip6 = field(ProtoField.ipv6, "remote.ip6", "Remote address"),
  remote_port = field(ProtoField.uint16, "remote.port", "Remote port"),
  version = field(ProtoField.uint32, "version", "Version"),
  build_info = field(ProtoField.string, "build_info", "Build"),
  error = field(ProtoField.string, "error", "Error"),
  reason = field(ProtoField.string, "reason", "Reason"),
  server = field(ProtoField.string, "dns_server", "Name server"),
  network = field(ProtoField.int32, "network", "Network"),
  metered = field(ProtoField.bool, "metered", "Metered"),
  ping_time = field(ProtoField.uint32, "ping_time", "Send time (ms)"),
  length = field(ProtoField.uint16, "length", "Payload length"),
  payload = field(ProtoField.bytes, "payload", "Payload"),
  header_size = field(ProtoField.uint16, "v2.header_size", "Header size"),
  header_crc = field(ProtoField.uint16, "v2.header_checksum",
                     "Header checksum", base.HEX),
  payload_crc = field(ProtoField.uint32, "v2.payload_checksum",
                      "Payload checksum", base.HEX),
  other = field(ProtoField.uint32, "v2.other", "Field without a meaning"),
  channel = field(ProtoField.int32, "connection.channel", "Channel"),
  address = field(ProtoField.ether, "connection.address", "Companion"),
  status = field(ProtoField.int32, "connection.status", "Status"),
  max_tx = field(ProtoField.uint16, "connection.max_tx", "Largest write"),
  max_rx = field(ProtoField.uint16, "connection.max_rx", "Largest read"),
  skipped = field(ProtoField.bytes, "skipped", "No message"),
  pending = field(ProtoField.uint32, "pending",
                  "Bytes of a message that is not complete"),
}
vantrel.fields = f

local function note(name, text, group)
  return ProtoExpert.new("vantrel." .. name, text, group,
                         expert.severity.ERROR)
end

local notes = {
  checksum = note("bad_checksum", "Bad checksum", expert.group.CHECKSUM),
  unknown_type = note("unknown_type", "Unknown type", expert.group.PROTOCOL),
  malformed = note("malformed", "Malformed", expert.group.MALFORMED),
}
vantrel.experts = notes

-- CRC-32C ------------------------------------------------------------------

local crc_table = {}
for i = 0, 255 do
  local crc = i
  for _ = 1, 8 do
    local carry = bit.band(crc, 1)
    crc = bit.rshift(crc, 1)
    if carry == 1 then crc = bit.bxor(crc, 0x82F63B78) end
  end
  crc_table[i] = crc
end

local function crc32c(bytes)
  local crc = bit.bnot(0)
  for i = 1, #bytes do
    local index = bit.band(bit.bxor(crc, bytes:byte(i)), 0xFF)
    crc = bit.bxor(bit.rshift(crc, 8), crc_table[index])
  end
  return bit.bnot(crc) % 2 ^ 32  -- the bit library's results are signed
end

local function short_crc32c(bytes)
  local crc = crc32c(bytes)
  return bit.band(bit.bxor(crc, bit.rshift(crc, 16)), 0xFFFF)
end

-- Protocol 1 ---------------------------------------------------------------

-- Of each type: the header's size, and what to show of it, as field, offset
-- and width. A width of -2 is little-endian. |length_at|: of the payload's
-- length. |from|: who sends it, where only one side does.
local function v1_layout(size, fields, options)
  local layout = options or {}
  layout.size, layout.fields = size, fields
  return layout
end
local stream_at_1 = {f.stream, 1, 4}
local request_at_1 = {f.request, 1, 4}
local remote_at_1 = {{f.remote_ip, 1, 4}, {f.remote_port, 5, 2}}
local both_ends = {{f.local_ip, 1, 4}, {f.local_port, 5, 2},
                   {f.remote_ip, 7, 4}, {f.remote_port, 11, 2}}
local both_ends_and_uid = {both_ends[1], both_ends[2], both_ends[3],
                           both_ends[4], {f.uid, 13, -2}}
local transfer = {request_at_1, {f.count, 5, 4}}
local version_at_1 = {{f.version, 1, 4}}

local V1_LAYOUTS = {
  v1_layout(13, {stream_at_1, {f.remote_ip, 5, 4}, {f.remote_port, 9, 2},
                 {f.uid, 11, 2}}, {from = TO_COMPANION}),
  v1_layout(5, {stream_at_1}),
  v1_layout(7, {stream_at_1}, {length_at = 5}),
  v1_layout(9, remote_at_1, {length_at = 7}),
  v1_layout(5, {{f.ping_time, 1, 4}}),
  v1_layout(5, {stream_at_1}, {from = FROM_COMPANION}),
  v1_layout(9, remote_at_1, {length_at = 7, from = FROM_COMPANION}),
  v1_layout(9, transfer, {from = TO_COMPANION}),
  v1_layout(7, {request_at_1}, {length_at = 5, from = FROM_COMPANION}),
  v1_layout(5, {{f.uid, 1, 2}},
            {length_at = 3, from = TO_COMPANION, text = f.package}),
  v1_layout(6, {{f.network, 1, 4}, {f.metered, 5, 1}}, {from = FROM_COMPANION}),
  v1_layout(9, transfer, {from = TO_COMPANION}),
  v1_layout(7, {request_at_1}, {length_at = 5, from = TO_COMPANION}),
  v1_layout(17, both_ends_and_uid, {length_at = 15}),
  v1_layout(15, both_ends, {length_at = 13, from = FROM_COMPANION}),
  v1_layout(7, version_at_1, {length_at = 5, from = TO_COMPANION}),
  v1_layout(7, version_at_1, {length_at = 5, from = FROM_COMPANION}),
  v1_layout(7, version_at_1, {length_at = 5, from = TO_COMPANION}),
}

-- The size of the message at |at|; nil while too little of it is there, and 0
-- where no message of this direction begins.
local function v1_size(bytes, at, direction)
  local layout = V1_LAYOUTS[bytes:byte(at)]
  if not layout then return 0 end
  if layout.from and direction and layout.from ~= direction then return 0 end
  if #bytes - at + 1 < layout.size then return nil end
  if not layout.length_at then return layout.size end
  local high, low = bytes:byte(at + layout.length_at, at + layout.length_at + 1)
  return layout.size + high * 256 + low
end

-- Bytes that begin no message are skipped one by one, as the device does; a
-- run of them is shown together.
local function v1_next(bytes, at, direction)
  local size = v1_size(bytes, at, direction)
  if size ~= 0 then return "v1", size end
  local stop = at
  while stop <= #bytes and v1_size(bytes, stop, direction) == 0 do
    stop = stop + 1
  end
  return "skipped", stop - at
end

local function show_v1(tree, message)
  local kind = message(0, 1):uint()
  local layout = V1_LAYOUTS[kind]
  tree:add(f.v1_type, message(0, 1))
  local summary = V1_NAMES[kind]
  for _, shown in ipairs(layout.fields) do
    local range = message(shown[2], math.abs(shown[3]))
    if shown[3] < 0 then
      tree:add_le(shown[1], range)
    else
      tree:add(shown[1], range)
    end
    if shown == stream_at_1 then summary = summary .. " " .. range:uint() end
  end
  if layout.length_at then
    tree:add(f.length, message(layout.length_at, 2))
    if message:len() > layout.size then
      tree:add(layout.text or f.payload, message(layout.size))
    end
  end
  return summary
end

-- Protocol 2 ---------------------------------------------------------------

local MAX_FRAME_PART = 16384  -- header and payload each

-- Where the bytes are none of a frame nothing behind them can be read: the
-- device gives the stream up there.
local function v2_next(bytes, at)
  local left = #bytes - at + 1
  if bytes:sub(at, at + 1) ~= ("VN"):sub(1, left) then
    return "lost", left
  end
  if left < 8 then return nil end
  local a, b, c, d = bytes:byte(at + 2, at + 5)
  return "v2", 8 + a + 256 * b + c + 256 * d
end

-- Calls |visit(number, value, range)| for each field of a serialised message;
-- |value| is a number, or nil where |range| are bytes. False when malformed.
local function each_protobuf_field(range, visit)
  local at, size = 0, range:len()
  local function varint()
    local value, factor = 0, 1
    while at < size do
      local byte = range(at, 1):uint()
      at = at + 1
      value = value + byte % 128 * factor
      if byte < 128 then return value end
      factor = factor * 128
    end
  end
  while at < size do
    local start = at
    local tag = varint()
    local wire = tag and tag % 8
    local value, bytes
    if wire == 0 then
      value = varint()
      if not value then return false end
    elseif wire == 2 then
      local length = varint()
      if not length or length > size - at then return false end
      bytes = length > 0 and range(at, length) or false
      at = at + length
    elseif wire == 1 or wire == 5 then
      at = at + (wire == 1 and 8 or 4)
      if at > size then return false end
    else
      return false
    end
    visit(math.floor(tag / 8), value, bytes, range(start, at - start))
  end
  return true
end

-- What each message's fields are: a field of ours, or the layout of a message
-- within it.
local function endpoint(ip, ip6, port)
  return {{address = {[4] = ip, [16] = ip6}}, port}
end
local remote = endpoint(f.remote_ip, f.remote_ip6, f.remote_port)
local application = endpoint(f.local_ip, f.local_ip6, f.local_port)
local handshake = {f.version, f.build_info, f.error}
local datagram = {application, remote, f.other}
local HEADER = {
  f.v2_type, f.payload_crc,
  [200] = {f.reason},
  [201] = handshake, [202] = handshake, [203] = handshake,
  [204] = {f.stream, remote, f.uid, f.other, f.other},
  [205] = {f.stream, f.other, f.other},
  [206] = {f.stream, f.other},
  [207] = {f.stream},
  [208] = {f.stream},
  [209] = datagram,
  [210] = datagram,
  [211] = {f.server},
  [212] = {{f.uid, f.package}},
  [213] = {f.network, f.other},
}

local TEXTS = {[f.build_info] = true, [f.error] = true, [f.reason] = true,
               [f.server] = true, [f.package] = true}

local function show_value(tree, known, value, bytes, whole, found)
  local is_text = TEXTS[known] ~= nil
  if is_text ~= (value == nil) or bytes == nil and is_text then
    tree:add_proto_expert_info(notes.malformed, "A field of another kind")
  elseif is_text then
    tree:add(known, bytes or whole, bytes and bytes:string() or "")
  else
    value = value % 2 ^ 32
    if known == f.network and value >= 2 ^ 31 then value = value - 2 ^ 32 end
    found[known] = value
    tree:add(known, whole, value)
  end
end

-- |found| receives the numbers by field.
local function show_protobuf(tree, layout, range, found)
  return each_protobuf_field(range, function(number, value, bytes, whole)
    local known = layout[number]
    if not known then
      tree:add(whole, "Unknown field " .. number)
    elseif type(known) ~= "table" then
      show_value(tree, known, value, bytes, whole, found)
    elseif known.address then
      local address = bytes and known.address[bytes:len()]
      if address then
        tree:add(address, bytes)
      else
        tree:add_proto_expert_info(notes.malformed, "An address of that size")
      end
    elseif bytes and not show_protobuf(tree, known, bytes, found) then
      tree:add_proto_expert_info(notes.malformed, "Message does not parse")
    end
  end)
end

local function check_sum(tree, name, expected, computed)
  if expected == computed then return end
  tree:add_proto_expert_info(notes.checksum, string.format(
      "Bad %s checksum: 0x%x, the bytes give 0x%x", name, expected, computed))
end

local function show_v2_header(tree, header, found)
  if not show_protobuf(tree, HEADER, header, found) then
    tree:add_proto_expert_info(notes.malformed, "The header does not parse")
  end
  local kind = found[f.v2_type] or 0
  if kind == 0 or kind >= 15 then
    tree:add_proto_expert_info(notes.unknown_type, "Unknown type " .. kind)
  end
  return V2_NAMES[kind] or "type " .. kind
end

local function show_v2(tree, message)
  local header_size = message(2, 2):le_uint()
  local payload_size = message(4, 2):le_uint()
  local header = header_size > 0 and message(8, header_size)
  local found = {}
  tree:add_le(f.header_size, message(2, 2))
  tree:add_le(f.length, message(4, 2))
  local crc_item = tree:add_le(f.header_crc, message(6, 2))
  check_sum(crc_item, "header", message(6, 2):le_uint(),
            header and short_crc32c(header:raw()) or 0)
  if math.max(header_size, payload_size) > MAX_FRAME_PART then
    tree:add_proto_expert_info(notes.malformed,
                               "Header or payload over 16384 bytes")
  end
  local summary = "no type"
  if header then summary = show_v2_header(tree, header, found) end
  if payload_size > 0 then
    local payload = message(8 + header_size)
    local item = tree:add(f.payload, payload)
    check_sum(item, "payload", found[f.payload_crc] or 0,
              crc32c(payload:raw()))
  end
  if found[f.stream] then summary = summary .. " " .. found[f.stream] end
  return summary
end

-- The byte streams ---------------------------------------------------------

local CONNECTION_HEADER_SIZE = 24

-- A connection's header stands before everything that the companion sends,
-- where a recording was made behind a socket that brings one. nil while that
-- cannot be told yet.
local function has_connection_header(bytes, protocol)
  if protocol == V2 then return bytes:sub(1, 1) ~= "V" end
  if bytes:sub(2, 4) ~= ("\0\0\0"):sub(1, #bytes - 1) then return false end
  if bytes:sub(1, 7) == "\17\0\0\0\5\0\0" then return false end
  if #bytes < CONNECTION_HEADER_SIZE then return nil end
  -- Many a message has zeros there too; an unbroken row of them is no header.
  local at = 1
  while at <= CONNECTION_HEADER_SIZE do
    local size = v1_size(bytes, at, FROM_COMPANION)
    if size == 0 then return bytes:sub(17, 20) == "\0\0\0\0" end
    at = at + (size or CONNECTION_HEADER_SIZE)
  end
  return false
end

local function show_connection_header(tree, message)
  tree:add_le(f.channel, message(0, 4))
  tree:add(f.address, message(6, 6))
  tree:add_le(f.status, message(16, 4))
  tree:add_le(f.max_tx, message(20, 2))
  tree:add_le(f.max_rx, message(22, 2))
  return "connection header"
end

local function show_lost(tree, message)
  tree:add(f.skipped, message)
  tree:add_proto_expert_info(notes.malformed,
                             "No frame begins here; the stream is lost")
  return "lost"
end

local function show_skipped(tree, message)
  local item = tree:add(f.skipped, message)
  item:add_proto_expert_info(
      notes.unknown_type, "Unknown type " .. message(0, 1):uint() ..
      ", or one that this side never sends; skipped")
  return "skipped"
end

local SHOW = {
  header = show_connection_header, v1 = show_v1, v2 = show_v2,
  lost = show_lost, skipped = show_skipped,
}

local number_field = Field.new("frame.number")
local flags_field = Field.new("frame.packet_flags_direction")
local interface_field = Field.new("frame.interface_id")
local description_field = Field.new("frame.interface_description")

local links    -- by interface: protocol, and the streams by direction
local packets  -- by number: what was found in it when it was first seen

function vantrel.init()
  links, packets = {}, {}
end

-- What the file says about the interface; nil where it says nothing.
local function described_protocol()
  local description = description_field()
  local number = description and
                 tostring(description.value):match("protocol (%d+)")
  return number and (number == "20" and V2 or V1)
end

-- nil while it cannot be told yet: a connection's header may come first.
local function guess_protocol(link, bytes, direction)
  if vantrel.prefs.protocol ~= 0 then
    return vantrel.prefs.protocol == 1 and V1 or V2
  end
  if link.protocol then return link.protocol end
  if bytes:sub(1, 2) == ("VN"):sub(1, #bytes) then
    return #bytes > 1 and V2 or nil
  end
  if direction ~= FROM_COMPANION or has_connection_header(bytes, V1) == false
  then
    return V1
  end
  local after = bytes:sub(CONNECTION_HEADER_SIZE + 1, CONNECTION_HEADER_SIZE + 2)
  if #after < 2 then return nil end
  return after == "VN" and V2 or V1
end

-- Settles protocol and header at a stream's begin; nil when it takes more
-- bytes. The launcher records on its own side of the link, where no socket of
-- this system brings a header: what it describes has none.
local function begin_stream(link, bytes, direction)
  local described = vantrel.prefs.protocol == 0 and described_protocol()
  if described then
    link.protocol = described
    return "message"
  end
  link.protocol = guess_protocol(link, bytes, direction)
  if not link.protocol then return nil end
  if direction ~= FROM_COMPANION then return "message" end
  local with_header = has_connection_header(bytes, link.protocol)
  if with_header == nil then return nil end
  return with_header and "header" or "message"
end

-- The kind and size of what begins at |at|; nil when more bytes are needed.
local function next_unit(link, stream, bytes, at, direction)
  if stream.is_lost then return "lost", #bytes - at + 1 end
  if not stream.has_begun then
    local first = begin_stream(link, bytes, direction)
    if first == "header" then
      stream.has_begun = #bytes >= CONNECTION_HEADER_SIZE
      return first, CONNECTION_HEADER_SIZE
    end
    if not first then return nil end
    stream.has_begun = true
  end
  if link.protocol == V2 then
    local kind, size = v2_next(bytes, at)
    stream.is_lost = kind == "lost"
    return kind, size
  end
  return v1_next(bytes, at, direction)
end

-- What the packet completes: a list of units with kind, bytes, and the offset
-- in the packet, which is negative for one that began in an earlier packet.
local function read_packet(chunk, interface, direction)
  links[interface] = links[interface] or {streams = {}}
  local link = links[interface]
  local key = direction or 0
  link.streams[key] = link.streams[key] or {pending = ""}
  local stream = link.streams[key]
  local before = #stream.pending
  local bytes = stream.pending .. chunk
  local units, at = {}, 1
  while at <= #bytes do
    local kind, size = next_unit(link, stream, bytes, at, direction)
    if not size or at + size - 1 > #bytes then break end
    table.insert(units, {kind = kind, offset = at - 1 - before,
                         bytes = bytes:sub(at, at + size - 1)})
    at = at + size
  end
  stream.pending = bytes:sub(at)
  return {units = units, pending = #stream.pending, protocol = link.protocol}
end

local function unit_range(unit, tvb)
  if unit.offset >= 0 then return tvb(unit.offset, #unit.bytes) end
  return ByteArray.new(unit.bytes, true):tvb("Reassembled message")()
end

function vantrel.dissector(tvb, pinfo, tree)
  -- A pass that gives no fields could not tell the streams apart; another one
  -- follows it.
  if not number_field() then return end
  local flags, interface = flags_field(), interface_field()
  local direction = flags and flags.value ~= 0 and flags.value or nil
  local packet = packets[pinfo.number]
  if not packet then
    packet = read_packet(tvb():raw(), interface and interface.value or 0,
                         direction)
    packets[pinfo.number] = packet
  end
  local summaries = {}
  for _, unit in ipairs(packet.units) do
    local range = unit_range(unit, tvb)
    local item = tree:add(vantrel, range)
    if direction then item:add(f.direction, direction):set_generated() end
    local summary = SHOW[unit.kind](item, range)
    item:append_text(", " .. summary)
    table.insert(summaries, summary)
  end
  if packet.pending > 0 then
    tree:add(vantrel, tvb()):add(f.pending, packet.pending):set_generated()
  end
  local arrow = ({"<- ", "-> "})[direction] or ""
  pinfo.cols.protocol = "vantrel"
  pinfo.cols.info = arrow .. (#summaries > 0 and table.concat(summaries, ", ")
                              or "part of a message")
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, vantrel)
