-- Shows the frames between a daemon and its plugins in Wireshark and tshark, from a file that
-- "confsim --trace-file FILE.pcapng" has written:
--
--     wireshark -X lua_script:/usr/share/confsvc/confsvc.lua FILE.pcapng
--
-- or, for good, with a link to this file in the directory of personal plugins (in Wireshark: Help,
-- About, Folders). A filter such as
--
--     confsvc.method == "publish" and confsvc.code
--
-- finds frames. The layout of a packet is described in confsim's source, trace/pcapng.h.

local confsvc = Proto("confsvc", "Configuration service")

local VERSION = 1
local HEAD_SIZE, MAGIC = 12, 0xfedcbaff
local REQUEST, REPLY, NOTIFICATION, UNREADABLE = 0, 1, 2, 3
local kinds = { [REQUEST] = "Request", [REPLY] = "Reply", [NOTIFICATION] = "Notification",
                [UNREADABLE] = "Unreadable" }
local RECEIVED, WITH_ID, WITH_CODE, WITH_FRAME = 1, 2, 4, 8

local f = {
    kind = ProtoField.uint8("confsvc.type", "Type", base.DEC, kinds),
    received = ProtoField.bool("confsvc.received", "Received by the daemon"),
    connection = ProtoField.uint32("confsvc.connection", "Connection"),
    peer = ProtoField.string("confsvc.peer", "Peer", base.UNICODE),
    method = ProtoField.string("confsvc.method", "Method", base.UNICODE),
    path = ProtoField.string("confsvc.path", "Path", base.UNICODE),
    id = ProtoField.uint32("confsvc.id", "Id"),
    code = ProtoField.int32("confsvc.code", "Error code"),
    text = ProtoField.string("confsvc.text", "Error text", base.UNICODE),
    size = ProtoField.uint32("confsvc.size", "Body on the wire, in bytes"),
    magic = ProtoField.uint32("confsvc.magic", "Magic", base.HEX),
    length = ProtoField.uint32("confsvc.length", "Length of the masked body"),
    sequence = ProtoField.uint16("confsvc.sequence", "Sequence number"),
    format = ProtoField.uint16("confsvc.format", "Format"),
    body = ProtoField.string("confsvc.body", "Body", base.UNICODE),
    response_in = ProtoField.framenum("confsvc.response_in", "Response in frame", base.NONE,
                                      frametype.RESPONSE),
    request_in = ProtoField.framenum("confsvc.request_in", "Request in frame", base.NONE,
                                     frametype.REQUEST),
    time = ProtoField.relative_time("confsvc.time", "Time"),
}
confsvc.fields = f

local damaged = ProtoExpert.new("confsvc.damaged", "This is no whole frame of the service",
                                expert.group.MALFORMED, expert.severity.ERROR)
local refused = ProtoExpert.new("confsvc.refused", "The request was refused",
                                expert.group.RESPONSE_CODE, expert.severity.WARN)
local unreadable = ProtoExpert.new("confsvc.unreadable", "The body was not well-formed",
                                   expert.group.MALFORMED, expert.severity.WARN)
confsvc.experts = { damaged, refused, unreadable }

-- What links frames, found when they are read for the first time, in their order.
local open_requests -- by connection, direction and id: { frame, method, path, time }
local request_of    -- by frame number of a reply: the same
local response_in   -- by frame number of a request

function confsvc.init()
    open_requests, request_of, response_in = {}, {}, {}
end

-- Reads one after the other, and notices the end of what there is.
local function reader(tvb)
    local at = 0
    local self = {}
    function self.take(count)
        if at + count > tvb:captured_len() then
            return nil
        end
        at = at + count
        return tvb(at - count, count)
    end
    function self.rest()
        return at < tvb:captured_len() and tvb(at) or nil
    end
    -- A text with its length in front: its range, which is null for an empty one, and whether it
    -- was there.
    function self.take_text()
        local length = self.take(2)
        if length == nil then
            return nil, false
        elseif length:uint() == 0 then
            return nil, true
        end
        local range = self.take(length:uint())
        return range, range ~= nil
    end
    return self
end

local function has(flags, flag)
    return flags % (2 * flag) >= flag
end

-- What stands in front of a frame; null when it is damaged.
local function read_front(from)
    local fixed = from.take(20)
    if fixed == nil or fixed(0, 1):uint() ~= VERSION or kinds[fixed(1, 1):uint()] == nil then
        return nil
    end
    local front = { kind = fixed(1, 1), flags = fixed(2, 1), connection = fixed(4, 4),
                    id = fixed(8, 4), code = fixed(12, 4), size = fixed(16, 4) }
    for _, name in ipairs({ "peer", "method", "path", "text" }) do
        local is_there
        front[name], is_there = from.take_text()
        if not is_there then
            return nil
        end
    end
    return front
end

local function text_of(range)
    return range and range:string(ENC_UTF_8) or ""
end

-- Finds which request and which reply belong together. An id counts for one direction of one
-- connection.
local function link(pinfo, front)
    if pinfo.visited then
        return
    end
    local received = has(front.flags:uint(), RECEIVED)
    local is_request = front.kind:uint() == REQUEST
    local asked_by_peer = received == is_request
    local key = front.connection:uint() .. (asked_by_peer and " in " or " out ") .. front.id:uint()
    if is_request then
        open_requests[key] = { frame = pinfo.number, method = text_of(front.method),
                               path = text_of(front.path), time = pinfo.rel_ts }
    elseif open_requests[key] then
        request_of[pinfo.number] = open_requests[key]
        response_in[open_requests[key].frame] = pinfo.number
        open_requests[key] = nil
    end
end

local function add_front(tree, front)
    local flags = front.flags:uint()
    tree:add(f.kind, front.kind)
    tree:add(f.received, front.flags, has(flags, RECEIVED))
    if has(flags, WITH_FRAME) then
        tree:add(f.connection, front.connection)
    end
    for _, name in ipairs({ "peer", "method", "path" }) do
        if front[name] then
            tree:add_packet_field(f[name], front[name], ENC_UTF_8)
        end
    end
    if has(flags, WITH_ID) then
        tree:add(f.id, front.id)
    end
    if has(flags, WITH_CODE) then
        tree:add(f.code, front.code)
    end
    if front.text then
        tree:add_packet_field(f.text, front.text, ENC_UTF_8)
    end
    tree:add(f.size, front.size)
end

local function add_links(tree, number, now)
    if response_in[number] then
        tree:add(f.response_in, response_in[number]):set_generated()
    end
    local request = request_of[number]
    if request then
        tree:add(f.method, request.method):set_generated()
        if request.path ~= "" then
            tree:add(f.path, request.path):set_generated()
        end
        tree:add(f.request_in, request.frame):set_generated()
        local seconds, fraction = math.modf(now - request.time)
        local nanoseconds = math.floor(fraction * 1e9 + 0.5)
        tree:add(f.time, NSTime.new(seconds, nanoseconds)):set_generated()
    end
end

-- The header is in the byte order of the machine that wrote it. Returns whether there is one.
local function add_head(tree, head)
    if head == nil then
        return false
    end
    local shown = tree:add(head, "Frame header")
    local is_little = head(0, 4):le_uint() == MAGIC
    local add = is_little and shown.add_le or shown.add
    add(shown, f.magic, head(0, 4))
    add(shown, f.length, head(4, 4))
    add(shown, f.sequence, head(8, 2))
    add(shown, f.format, head(10, 2))
    return is_little or head(0, 4):uint() == MAGIC
end

local function add_body(tree, root, body, pinfo)
    if body == nil then
        return
    end
    tree:add_packet_field(f.body, body, ENC_UTF_8)
    local xml = Dissector.get("xml")
    if xml then
        local protocol = tostring(pinfo.cols.protocol)
        pcall(xml.call, xml, body:tvb(), pinfo, root)
        pinfo.cols.protocol = protocol
    end
end

local function name_of_peer(front)
    local name = text_of(front.peer)
    if name == "" or name:find("^process %d") or name:find("^agent, ") then
        return name
    end
    return 'plugin "' .. name .. '"'
end

-- For instance: plugin "users" -> reply to pull /users:users id 3: error 22 "no such user"
local function summary(front, number)
    local kind, flags = front.kind:uint(), front.flags:uint()
    local line = name_of_peer(front)
    line = line == "" and line or line .. (has(flags, RECEIVED) and " -> " or " <- ")
    local method, path = text_of(front.method), text_of(front.path)
    if kind == REPLY then
        local request = request_of[number] or { method = "", path = "" }
        method, path = request.method, request.path
        line = line .. "reply" .. (method ~= "" and " to " or "")
    elseif kind ~= REQUEST then
        line = line .. kinds[kind]:lower()
    end
    line = line .. method .. (path ~= "" and " " or "") .. path
    if has(flags, WITH_ID) then
        line = line .. " id " .. front.id:uint()
    end
    if has(flags, WITH_CODE) then
        line = line .. ": error " .. front.code:int()
    end
    return line .. (front.text and ' "' .. text_of(front.text) .. '"' or "")
end

local function set_addresses(cols, front)
    local from, to = text_of(front.peer), "daemon"
    if front.peer == nil then
        from = "queue"
    elseif not has(front.flags:uint(), RECEIVED) then
        from, to = to, from
    end
    cols.src, cols.dst = from, to
end

function confsvc.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "confsvc"
    local from = reader(tvb)
    local tree = root:add(confsvc, tvb())
    local front = read_front(from)
    if front == nil then
        pinfo.cols.info = "damaged"
        tree:add_proto_expert_info(damaged)
        return
    end
    local flags, kind = front.flags:uint(), front.kind:uint()
    if has(flags, WITH_ID) then
        link(pinfo, front)
    end
    local line = summary(front, pinfo.number)
    tree:append_text(", " .. line)
    add_front(tree, front)
    add_links(tree, pinfo.number, pinfo.rel_ts)
    if has(flags, WITH_FRAME) and not add_head(tree, from.take(HEAD_SIZE)) then
        tree:add_proto_expert_info(damaged)
    end
    if kind == UNREADABLE then
        tree:add_proto_expert_info(unreadable)
    elseif has(flags, WITH_CODE) then
        tree:add_proto_expert_info(refused)
    end
    add_body(tree, root, from.rest(), pinfo)
    set_addresses(pinfo.cols, front)
    pinfo.cols.info = line
end
