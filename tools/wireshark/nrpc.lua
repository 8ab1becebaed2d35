-- nrpc.lua: Wireshark shows what NRPC clients and servers say to each other (docs/protocol.md).
--
-- Copy it to ~/.local/lib/wireshark/plugins, or give it to one run (-2 lets requests name the frame
-- of their reply):   tshark -X lua_script:nrpc.lua -2 -Y nrpc -r capture.pcap
--
-- A connection is recognised by its first bytes. Name the server's port, in the preferences of the
-- protocol or as "-o nrpc.port:7000", where that port is known for another protocol, and where the
-- capture begins in the middle of a connection: otherwise the side first seen to send a request or
-- a reply is taken for the client.

local HEAD_LEN, MAX_CHUNK_LEN, MAX_MESSAGE_LEN, MAX_CHUNKS = 20, 1048576, 268435456, 65536
local HALF_MESSAGE_S, MIN_RECORD_LEN, KICK = 21, 20, "<Msg0000>0</Msg0000>"
local CLOSE, CANCEL, OWN, REQUEST, REPLY, KICKED, UNKNOWN = 0, 1, 2, 3, 4, 5, 6
local KIND_NAMES = {[0] = "Close notice", "Cancel of", "Server message", "Request", "Reply",
                    "Disconnection by the server", "Unknown id"}

local nrpc = Proto("nrpc", "NRPC")
nrpc.prefs.port = Pref.uint("Server port", 0, "TCP port on which NRPC servers listen (0: none)")

local frame_of = ProtoField.framenum
local field = {
    magic = ProtoField.string("nrpc.magic", "Magic"),
    id = ProtoField.string("nrpc.msgid", "Message id"),
    total_len = ProtoField.int32("nrpc.total_len", "Bytes in the message"),
    index = ProtoField.int32("nrpc.chunk_index", "Chunk index"),
    chunk_len = ProtoField.int32("nrpc.chunk_len", "Bytes in the chunk"),
    chunk = ProtoField.bytes("nrpc.chunk", "Chunk"),
    message_len = ProtoField.uint32("nrpc.message.len", "Message length"),
    packets = ProtoField.uint32("nrpc.message.packets", "Packets"),
    first_in = frame_of("nrpc.message.first_in", "Begins in"),
    kind = ProtoField.uint8("nrpc.kind", "Kind", base.DEC, KIND_NAMES),
    record_id = ProtoField.string("nrpc.record.id", "Record id"),
    count = ProtoField.uint32("nrpc.record.count", "Payload bytes"),
    payload = ProtoField.bytes("nrpc.payload", "Payload"),
    text = ProtoField.string("nrpc.text", "Payload as text", base.UNICODE),
    request_in = frame_of("nrpc.request_in", "Request in", base.NONE, frametype.REQUEST),
    reply_in = frame_of("nrpc.reply_in", "Reply in", base.NONE, frametype.RESPONSE),
    cancel_in = frame_of("nrpc.cancel_in", "Cancelled in"),
    time = ProtoField.relative_time("nrpc.time", "Time since the request"),
}
nrpc.fields = field

local function expert_of(name, text, of, how)
    return ProtoExpert.new("nrpc.expert." .. name, text, expert.group[of], expert.severity[how])
end
local note = {
    no_packet = expert_of("no_packet", "Bytes that are no packet", "MALFORMED", "ERROR"),
    bad_record = expert_of("bad_record", "Rest of the message ignored", "MALFORMED", "ERROR"),
    overflow = expert_of("overflow", "Discarded: too many bytes or chunks", "MALFORMED", "ERROR"),
    gap = expert_of("gap", "Message begins with a later chunk", "SEQUENCE", "WARN"),
    abandoned = expert_of("abandoned", "Discards an incomplete message", "SEQUENCE", "NOTE"),
    cancel = expert_of("cancel", "Client no longer waits", "SEQUENCE", "NOTE"),
    close = expert_of("close", "Connection is being ended", "SEQUENCE", "NOTE"),
    late = expert_of("late", "Reply to a cancelled request", "SEQUENCE", "NOTE"),
    stray = expert_of("stray", "Reply to no open request", "SEQUENCE", "WARN"),
}
nrpc.experts = note

-- What was learnt when the packets were first seen, in order. A place is where a packet lies.
local conversations -- by TCP stream: its client, half messages by sender, open exchanges by id
local packets       -- by place: the packet's part in its message
local records       -- by place and number: the record's kind and exchange
local tcp_stream = Field.new("tcp.stream")

function nrpc.init()
    conversations, packets, records = {}, {}, {}
end

local function ends_of(pinfo)
    return tostring(pinfo.src) .. " " .. pinfo.src_port,
           tostring(pinfo.dst) .. " " .. pinfo.dst_port
end

-- The records of a message in order; where reading stopped before the end, and why.
local function records_in(text)
    local found, at = {}, 1
    while at <= #text do
        local left = #text - at + 1
        local digits = text:sub(at + 9):match("^[^<]*")
        local start, count = at + 9 + #digits + 10, tonumber(digits) or 0
        if left < MIN_RECORD_LEN or text:sub(at, at + 3) ~= "<Msg" then
            return found, at, "no record begins here"
        elseif digits:find("%D") then
            return found, at, "the count is no number"
        elseif count > #text - start + 1 then
            return found, at, "the count is more than there is"
        end
        table.insert(found, {at = at, id = text:sub(at + 4, at + 7), start = start, count = count,
                             payload = text:sub(start, start + count - 1)})
        at = start + count
        if count == 0 and at <= #text then
            return found, at, "a count of 0 is the end"
        end
    end
    return found
end

-- Its kind and the exchange that it belongs to; called once for each record, in order.
local function learn_record(conversation, pinfo, record)
    local number = record.id:match("^%d%d%d%d$") and tonumber(record.id) or -1
    local sender, receiver = ends_of(pinfo)
    local open, own = conversation.open, number >= 5 and number <= 9
    if conversation.client == nil and number > 0 then
        local from_server = own or pinfo.src_port == nrpc.prefs.port
        conversation.client = from_server and receiver or sender
    end
    local kind = number == 0 and CLOSE or number == 1 and CANCEL or own and OWN or
        number < 10 and UNKNOWN or conversation.client == sender and REQUEST or REPLY
    if kind == REQUEST then
        open[record.id] = {request_in = pinfo.number, sent = pinfo.rel_ts}
    end
    local exchange = open[kind == CANCEL and record.payload or record.id]
    if kind == CANCEL and exchange then
        exchange.cancel_in = pinfo.number
    elseif kind == REPLY and exchange then
        exchange.reply_in, exchange.seconds = pinfo.number, pinfo.rel_ts - exchange.sent
        open[record.id] = nil
    end
    return {kind = kind, exchange = exchange}
end

local function show_exchange(tree, kind, exchange)
    local function generated(which, value)
        return value and tree:add(which, value):set_generated()
    end
    if kind == REQUEST then
        generated(field.reply_in, exchange.reply_in)
        generated(field.cancel_in, exchange.cancel_in)
    elseif (kind == REPLY or kind == CANCEL) and exchange then
        generated(field.request_in, exchange.request_in)
    end
    if kind == REPLY and exchange then
        local whole = math.floor(exchange.seconds)
        local rest = math.floor((exchange.seconds - whole) * 1e9 + 0.5)
        generated(field.time, NSTime.new(whole, rest))
    end
    local said = kind == CANCEL and note.cancel or kind == CLOSE and note.close or
        kind == REPLY and (not exchange and note.stray or exchange.cancel_in and note.late)
    return said and tree:add_proto_expert_info(said)
end

-- `range` is the whole message; answers its description for the packet list.
local function show_message(range, conversation, pinfo, tree, place)
    local said, found, stopped, why = {}, records_in(range:raw())
    for i, record in ipairs(found) do
        local key = place .. " " .. i
        records[key] = records[key] or learn_record(conversation, pinfo, record)
        local kind, bytes = records[key].kind, nil
        local line = KIND_NAMES[kind] .. " " .. (kind == CANCEL and record.payload or record.id)
        local element_len = record.start - record.at
        local subtree = tree:add(nrpc, range(record.at - 1, element_len + record.count), line)
        subtree:add(field.kind, kind):set_generated()
        subtree:add(field.record_id, range(record.at + 3, 4))
        subtree:add(field.count, range(record.at + 8, element_len - 19), record.count)
        if record.count > 0 then
            bytes = range(record.start - 1, record.count)
            subtree:add(field.payload, bytes)
            line = line .. (kind ~= CANCEL and ", " .. record.count .. " bytes" or "")
        end
        if bytes and not record.payload:find("[%z\1-\8\11\12\14-\31]") then
            subtree:add_packet_field(field.text, bytes, ENC_GB18030)
        end
        show_exchange(subtree, kind, records[key].exchange)
        table.insert(said, line)
    end
    if stopped then
        tree:add_tvb_expert_info(note.bad_record, range(stopped - 1), "Rest ignored: " .. why)
        table.insert(said, "bad record")
    end
    return table.concat(said, "; ")
end

-- The packet's part in its message, by the receiver's rules; called once for each, in order.
local function learn_packet(conversation, pinfo, head, chunk)
    local sender, part = ends_of(pinfo), {}
    local half = conversation.half[sender]
    if not (half and half.id == head.id and half.index + 1 == head.index and
            pinfo.rel_ts - half.time <= HALF_MESSAGE_S) then
        part.abandons = half and "Discards " .. half.len .. " bytes of message " .. half.id
        part.gap = head.index ~= 0
        half = {id = head.id, len = 0, first_in = pinfo.number, chunks = {}}
    end
    half.index, half.time, half.len = head.index, pinfo.rel_ts, half.len + head.chunk_len
    table.insert(half.chunks, chunk)
    part.count, part.first_in = #half.chunks, half.first_in
    part.complete = half.len == head.total_len
    part.overflow = half.len > head.total_len or (part.count == MAX_CHUNKS and not part.complete)
    if part.complete and part.count > 1 then
        part.bytes = ByteArray.new(table.concat(half.chunks), true)
    end
    conversation.half[sender] = not part.complete and not part.overflow and half or nil
    return part
end

-- Answers the description of the packet, or of the message that it completes.
local function show_packet(range, head, pinfo, tree)
    local streams = {tcp_stream()}
    local stream, place = streams[#streams].value, pinfo.number .. " " .. range:offset()
    conversations[stream] = conversations[stream] or {half = {}, open = {}}
    local conversation, chunk = conversations[stream], range:raw():sub(HEAD_LEN + 1)
    packets[place] = packets[place] or learn_packet(conversation, pinfo, head, chunk)
    local part = packets[place]
    local line = string.format("chunk %d of message %s", head.index, head.id)
    local subtree = tree:add(nrpc, range, "NRPC packet, " .. line)
    subtree:add(field.magic, range(0, 4))
    subtree:add(field.id, range(4, 4))
    subtree:add_le(field.total_len, range(8, 4))
    subtree:add_le(field.index, range(12, 4))
    subtree:add_le(field.chunk_len, range(16, 4))
    if head.chunk_len > 0 then
        subtree:add(field.chunk, range(HEAD_LEN))
    end
    if part.abandons then
        subtree:add_proto_expert_info(note.abandoned, part.abandons)
    end
    if part.gap or part.overflow then
        subtree:add_proto_expert_info(part.gap and note.gap or note.overflow)
    end
    if not part.complete or head.total_len == 0 then
        return line
    end
    line = "NRPC message " .. head.id
    local message = part.bytes and part.bytes:tvb(line):range() or range(HEAD_LEN)
    local whole = tree:add(nrpc, message, line)
    whole:add(field.message_len, message:len()):set_generated()
    whole:add(field.packets, part.count):set_generated()
    whole:add(field.first_in, part.first_in):set_generated()
    return show_message(message, conversation, pinfo, whole, place)
end

-- The fields of a head, false where there is none.
local function head_at(range)
    local head = {id = range(4, 4):string(), total_len = range(8, 4):le_int(),
                  index = range(12, 4):le_int(), chunk_len = range(16, 4):le_int()}
    return range(0, 4):string() == "NMSG" and
        head.total_len >= 0 and head.total_len <= MAX_MESSAGE_LEN and
        head.chunk_len >= 0 and head.chunk_len <= MAX_CHUNK_LEN and
        (head.chunk_len > 0 or head.total_len == 0) and head
end

-- Shows the packets in a piece of the stream; asks for more of it where one is cut.
function nrpc.dissector(tvb, pinfo, root)
    if tvb:len() ~= tvb:reported_len() then
        return 0 -- the capture has cut it short
    end
    local tree, at, said = root:add(nrpc, tvb()), 0, {}
    while at < tvb:len() do
        local left = tvb:len() - at
        local head = left >= HEAD_LEN and head_at(tvb(at, HEAD_LEN))
        local missing = head and HEAD_LEN + head.chunk_len - left or 0
        if left < HEAD_LEN or missing > 0 then
            pinfo.desegment_offset = at
            pinfo.desegment_len = missing > 0 and missing or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local taken = head and HEAD_LEN + head.chunk_len or left
        if head then
            table.insert(said, show_packet(tvb(at, taken), head, pinfo, tree))
        elseif tvb(at, HEAD_LEN):string() == KICK then
            taken = HEAD_LEN
            local subtree = tree:add(nrpc, tvb(at, taken), KIND_NAMES[KICKED])
            subtree:add(field.kind, KICKED):set_generated()
            subtree:add_proto_expert_info(note.close)
            table.insert(said, KIND_NAMES[KICKED])
        else
            tree:add_tvb_expert_info(note.no_packet, tvb(at))
            table.insert(said, left .. " bytes that are no packet")
        end
        at = at + taken
    end
    pinfo.cols.protocol = "NRPC"
    if #said > 0 then
        pinfo.cols.info:clear()
        pinfo.cols.info:append(table.concat(said, "; ") .. "  ")
        pinfo.cols.info:fence() -- a segment may end one packet and begin others
    end
    return tvb:len()
end

nrpc:register_heuristic("tcp", function(tvb, pinfo, root)
    local ours = tvb:len() >= 4 and tvb(0, 4):string() == "NMSG"
    if ours then
        pinfo.conversation = nrpc
        nrpc.dissector(tvb, pinfo, root)
    end
    return ours
end)

local ports, port = DissectorTable.get("tcp.port"), 0
ports:add_for_decode_as(nrpc)
function nrpc.prefs_changed()
    ports:remove(port, nrpc)
    port = nrpc.prefs.port
    if port ~= 0 then
        ports:add(port, nrpc)
    end
end
