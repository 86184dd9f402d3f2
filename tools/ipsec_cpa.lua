-- Wireshark dissector for the datagrams between the RP and ipsec_cpa:
-- UDP 23456 (PAL and CEAL requests and responses, the agent's notification)
-- and UDP 23458 (keepalives).
--
-- Load it for one run:  tshark -X lua_script:/usr/local/share/ipsec_cpa/ipsec_cpa.lua -r cap.pcap
-- or for good: copy it to ~/.local/lib/wireshark/plugins/ (or the global plugins folder).
--
-- Every field is named ipsec_cpa.[<group>.]<wire field name>:
--   type, length, length_le,    datagram header (a keepalive's length is
--   kind                        little-endian); kind (generated) is request,
--                               response, notification or keepalive
--   pal.cmd, ceal.api           the PAL command or CEAL api type
--   callback_handle, sadbhandle, create_handle, peer_handle, flow_id,
--   flow_handle, status, ...    the fixed fields of request and response bodies
--   peer.*                      peer parameters (PEER_INSERT)
--   acl.*                       ACL modify descriptor
--   spi.*, spi.dest_addr.*, spi.src_addr.*   SPI insert fixed part
--   record.kind, record.length  header of each record of the ACE/action stream
--   ace.*, port.*               an ACE; port.* for each of its two port lists
--                               (local first), port.value per valid port
--   action.*                    a packet action
--   cipher.*                    cipher info of a key request (addresses as
--                               cipher.source.*, cipher.dest.*, ...)
--   key.type, key.len, key.data key TLVs: key.data is always masked, the key
--                               bytes are never shown
--   flow.*, flow_stats.*        FLOW_STATS flow handles and their counters
--   sadb_stats.*, global_stats.*   IVRF statistics
--   notify.*                    KESTRIX_PAL_NOTIFY_RP
--   keepalive.*                 keepalive payload
--   data                        bytes of a body with no known layout
-- Expert info: ipsec_cpa.truncated and ipsec_cpa.bad_record (malformed),
-- ipsec_cpa.length_mismatch and ipsec_cpa.too_many_ports (warnings).

local proto = Proto("ipsec_cpa", "IPsec control-plane agent protocol")

local PAL_PORT, KEEPALIVE_PORT = 23456, 23458
local MASKED_KEY = "********"

-- ---- value names -----------------------------------------------------------

local function names_from(first, list)
  local t = {}
  for i, name in ipairs(list) do t[first + i - 1] = name end
  return t
end

local MSG_TYPES = names_from(0, {"MSG_PAL", "MSG_CEAL", "MSG_IKE", "MSG_KEEP_ALIVE"})
local PAL_CMDS = names_from(0, {
  "KESTRIX_PAL_CMD_INVALID", "KESTRIX_PAL_SADB_INIT_START", "KESTRIX_PAL_SADB_INIT_COMPLETED",
  "KESTRIX_PAL_SADB_DELETE", "KESTRIX_PAL_SADB_ATTR_UPDATE", "KESTRIX_PAL_SADB_INTF_ATTACH",
  "KESTRIX_PAL_SADB_INTF_UPDATE", "KESTRIX_PAL_SADB_INTF_DETACH", "KESTRIX_PAL_ACL_INSERT",
  "KESTRIX_PAL_ACL_MODIFY", "KESTRIX_PAL_ACL_DELETE", "KESTRIX_PAL_PEER_INSERT",
  "KESTRIX_PAL_PEER_DELETE", "KESTRIX_PAL_SPI_INSERT", "KESTRIX_PAL_SPI_DELETE",
  "KESTRIX_PAL_CFLOW_INSERT", "KESTRIX_PAL_CFLOW_MODIFY", "KESTRIX_PAL_CFLOW_DELETE",
  "KESTRIX_PAL_IPSEC_SA_DELETE", "KESTRIX_PAL_TBAR_CREATE", "KESTRIX_PAL_TBAR_UPDATE",
  "KESTRIX_PAL_NOTIFY_RP", "KESTRIX_PAL_NOTIFY_SA_LIFE", "KESTRIX_PAL_NOTIFY_SA_DEAD",
  "KESTRIX_PAL_NOTIFY_IDLE_TIME", "KESTRIX_PAL_NOTIFY_DPD_TIME"})
local CEAL_APIS = names_from(0, {
  "KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS", "KESTRIX_CEAL_CE_FLOW_STATS",
  "KESTRIX_CEAL_CE_IVRF_SADB_STATS", "KESTRIX_CEAL_CE_IVRF_GLOBAL_STATS",
  "KESTRIX_CEAL_CE_DELETE_FLOW"})
local STATUSES = names_from(0, {
  "CRYPTO_ERR_INTERNAL", "CRYPTO_NO_ERR", "CRYPTO_ERR_UNSUPPORTED", "CRYPTO_ERR_RESOURCES",
  "CRYPTO_ERR_TIMEOUT", "CRYPTO_ERR_BUFFER_OVERFLOW", "CRYPTO_ERR_NO_SESSION", "CRYPTO_ERR_BUSY",
  "CRYPTO_ERR_INVALID", "CRYPTO_ERR_WEAK_KEY", "CRYPTO_ERR_BOGUS_SPI", "CRYPTO_ERR_REPLAY",
  "CRYPTO_ERR_AUTH_FAILED", "CRYPTO_ERR_VERIFY_FAILED", "CRYPTO_ERR_NO_SUCH_KEY",
  "CRYPTO_ERR_HARDWARE_ERROR", "CRYPTO_ERR_STANDBY", "CRYPTO_ERR_NAME_NOT_FOUND",
  "CRYPTO_ERR_TFC_PACKET", "CRYPTO_ERR_SEQ_NUMBER_WRAPPED", "CRYPTO_ERR_BAD_KEY_LENGTH"})
local SADB_HINTS = names_from(0, {"CRYPTO_SADB_HINT_VTI", "CRYPTO_SADB_HINT_TP", "CRYPTO_SADB_HINT_GENERAL"})
local MAP_UPDATES = names_from(0, {"kestrix_append_ace", "kestrix_insert_ace", "kestrix_insert_all",
  "kestrix_remove_ace", "kestrix_remove_all", "kestrix_replace"})
local RECORD_KINDS = names_from(1, {
  "KESTRIX_PAL_ACE_ACL_DESC", "KESTRIX_PAL_ACE_ACE_DESC", "KESTRIX_PAL_ACE_DEL_ACE_DESC",
  "KESTRIX_PAL_ACE_DECR_ACL_IN_ACTION", "KESTRIX_PAL_ACE_DECR_ACL_OUT_ACTION",
  "KESTRIX_PAL_ACE_DECR_ACL_IN_DENY_ACTION", "KESTRIX_PAL_ACE_DECR_ACL_OUT_DENY_ACTION",
  "KESTRIX_PAL_IN_ACTION", "KESTRIX_PAL_OUT_ACTION", "KESTRIX_PAL_IN_DENY_ACTION",
  "KESTRIX_PAL_OUT_DENY_ACTION"})
local ACE_IP_TYPES = {[0] = "crypto_ace_dummy_entry", [4] = "crypto_ace_ipv4", [6] = "crypto_ace_ipv6"}
local ACE_TYPES = names_from(0, {"kestrix_ace_permit", "kestrix_ace_deny_jump", "kestrix_ace_deny_action",
  "kestrix_ace_no_match", "kestrix_ace_need_reassembly", "kestrix__ace_discard"})
local ACTIONS = names_from(0, {"CDH_ACTION_DISCARD_PACKET", "CDH_ACTION_DISCARD_PACKET_NOTIFY_RP",
  "CDH_ACTION_FORWARD_PACKET", "CDH_ACTION_DECRYPT_PACKET", "CDH_ACTION_ENCRYPT_PACKET"})
local CIPHERS = names_from(0, {"KESTRIX_CE_NO_CIPHER", "KESTRIX_CE_DES", "KESTRIX_CE_3DES",
  "KESTRIX_CE_AES", "KESTRIX_CE_SEAL", "KESTRIX_CE_GCM", "KESTRIX_CE_GMAC"})
local MACS = names_from(0, {"KESTRIX_CE_NO_MAC", "KESTRIX_CE_HMAC_MD5", "KESTRIX_CE_HMAC_SHA1",
  "KESTRIX_CE_HMAC_SHA256", "KESTRIX_CE_HMAC_SHA384", "KESTRIX_CE_HMAC_SHA512"})
local COMPRESSIONS = names_from(0, {"CE_NO_COMPRESS", "CE_LZS"})
local MODES = names_from(0, {"CE_TRANSPORT", "CE_TUNNEL"})
local FORMATS = names_from(0, {"CE_IPv4", "CE_IPv6", "CE_either"})
local PREFRAGS = names_from(0, {"crypto_prefragmentation_default", "crypto_prefragmentation_enable",
  "crypto_prefragmentation_disable"})
local KEY_TYPES = names_from(1, {"KESTRIX_CE_CIPHER_INFO_TYPE_ESP_KEY",
  "KESTRIX_CE_CIPHER_INFO_TYPE_ESP_MAC", "KESTRIX_CE_CIPHER_INFO_TYPE_AH"})

-- ---- fields and layouts ------------------------------------------------------
-- A layout is a list of entries, each with its width on the wire: a field
-- (`pf`), a gap, a subtree (`layout`) or a decoder of its own (`fn`).

local protofields = {}
local fields_by_name = {}
local UINT_CTORS = {[1] = ProtoField.uint8, [2] = ProtoField.uint16, [4] = ProtoField.uint32,
  [8] = ProtoField.uint64}

local function make_protofield(abbr, label, width, o)
  if o.ipv4 then return ProtoField.ipv4(abbr, label) end
  if o.ipv6 then return ProtoField.ipv6(abbr, label) end
  if o.bytes then return ProtoField.bytes(abbr, label) end
  if o.text then return ProtoField.string(abbr, label) end
  if o.signed then return ProtoField.int32(abbr, label, base.DEC) end
  return UINT_CTORS[width](abbr, label, o.hex and base.HEX or base.DEC, o.names)
end

-- The field `name` (under ipsec_cpa.) of `width` bytes; one ProtoField per name,
-- so layouts share fields such as callback_handle.
local function field(name, width, opts)
  local known = fields_by_name[name]
  if known then
    assert(known.width == width, "field " .. name .. " used with two widths")
    return known
  end
  local o = opts or {}
  local label = o.label or name:match("([^.]+)$")
  local pf = make_protofield("ipsec_cpa." .. name, label, width, o)
  protofields[#protofields + 1] = pf
  local entry = {name = name, width = width, pf = pf, le = o.le, text = o.text,
                 numeric = UINT_CTORS[width] ~= nil and not (o.ipv4 or o.bytes or o.text or o.signed)}
  fields_by_name[name] = entry
  return entry
end

local function gap(width) return {width = width} end

local function width_of(layout)
  local w = 0
  for _, e in ipairs(layout) do w = w + e.width end
  return w
end

local function sub(label, layout) return {label = label, layout = layout, width = width_of(layout)} end

-- Fields from compact entries: {"name", width, opts} or a number (a gap).
local function fields(prefix, entries)
  local layout = {}
  for _, s in ipairs(entries) do
    if type(s) == "number" then layout[#layout + 1] = gap(s)
    elseif s.width then layout[#layout + 1] = s
    else layout[#layout + 1] = field(prefix .. s[1], s[2], s[3]) end
  end
  return layout
end

-- `kestrix_addr`: type, length, then a 16-byte union of which IPv4 takes the first 4.
local function address(prefix, label)
  return sub(label, fields(prefix .. ".", {{"type", 1}, {"length", 1}, {"ipv4", 4, {ipv4 = true}}, 12}))
end

local HEX = {hex = true}
local f_type = field("type", 2, {names = MSG_TYPES})
local f_length = field("length", 2)
local f_length_le = field("length_le", 2, {label = "length (little-endian)", le = true})
local f_kind = field("kind", 0, {text = true})
local f_pal_cmd = field("pal.cmd", 2, {names = PAL_CMDS})
local f_ceal_api = field("ceal.api", 2, {names = CEAL_APIS})
local f_data = field("data", 0, {bytes = true})
local f_callback = field("callback_handle", 4, HEX)
local f_sadb = field("sadbhandle", 4)
local f_create = field("create_handle", 4, HEX)
local f_status = field("status", 4, {names = STATUSES})
local f_flow_handle = field("flow_handle", 8)
local f_handle = field("handle", 4, HEX)

local ef_truncated = ProtoExpert.new("ipsec_cpa.truncated", "Datagram ends inside a field",
  expert.group.MALFORMED, expert.severity.ERROR)
local ef_bad_record = ProtoExpert.new("ipsec_cpa.bad_record", "Unknown record kind",
  expert.group.MALFORMED, expert.severity.ERROR)
local ef_length = ProtoExpert.new("ipsec_cpa.length_mismatch", "message_length fits neither a request nor a response",
  expert.group.PROTOCOL, expert.severity.WARN)
local ef_ports = ProtoExpert.new("ipsec_cpa.too_many_ports", "num_port above 10",
  expert.group.PROTOCOL, expert.severity.WARN)

-- ---- the walker ------------------------------------------------------------------
-- ctx: tvb, pinfo, v (the last value read of each numeric field), cmd_end
-- (where the command ends by its message_length). Every decoder returns the
-- offset after what it read, or nil once the datagram has ended early.

local function cut_short(ctx, tree, text)
  tree:add_proto_expert_info(ef_truncated, text)
  ctx.pinfo.cols.info:append(" [truncated]")
end

local function fits(ctx, tree, off, width, what)
  if off + width <= ctx.tvb:len() then return true end
  cut_short(ctx, tree, string.format("Datagram ends at byte %d, inside %s (bytes %d-%d)",
    ctx.tvb:len(), what, off, off + width - 1))
  return false
end

local function add_field(ctx, tree, off, e)
  local range = ctx.tvb(off, e.width)
  if e.text then
    tree:add(e.pf, range, range:stringz())  -- NUL-padded character arrays
  elseif e.le then
    tree:add_le(e.pf, range)
  else
    tree:add(e.pf, range)
  end
  if e.numeric and e.width <= 4 then ctx.v[e.name] = e.le and range:le_uint() or range:uint() end
end

local function subtree(ctx, tree, off, width, label)
  local available = math.max(0, math.min(width, ctx.tvb:len() - off))
  if available == 0 then return tree:add(proto, label) end
  return tree:add(proto, ctx.tvb(off, available), label)
end

local function add_layout(ctx, tree, off, layout)
  for _, e in ipairs(layout) do
    if e.fn then
      off = e.fn(ctx, tree, off)
    elseif e.layout then
      off = add_layout(ctx, subtree(ctx, tree, off, e.width, e.label), off, e.layout)
    elseif fits(ctx, tree, off, e.width, e.name or "a gap") then
      if e.pf then add_field(ctx, tree, off, e) end
      off = off + e.width
    else
      off = nil
    end
    if not off then return nil end
  end
  return off
end

local function add_bytes_to_end(ctx, tree, off, f)
  local rest = ctx.tvb:len() - off
  if rest > 0 then tree:add(f.pf, ctx.tvb(off, rest)) end
end

-- ---- ACEs, port lists, actions, the record stream -------------------------------

local PORT_LIST_SIZE, PORT_CAPACITY = 25, 10
local f_port_value = field("port.value", 2)
local port_head = fields("port.", {{"type", 4}, {"num_port", 1}})

-- Ten port slots; only the first num_port are ports.
local function port_list(label)
  return {width = PORT_LIST_SIZE, fn = function(ctx, tree, off)
    local t = subtree(ctx, tree, off, PORT_LIST_SIZE, label)
    if not add_layout(ctx, t, off, port_head) or not fits(ctx, t, off, PORT_LIST_SIZE, label) then return nil end
    local n = ctx.v["port.num_port"]
    if n > PORT_CAPACITY then
      t:add_proto_expert_info(ef_ports, string.format("num_port %d: only %d slots", n, PORT_CAPACITY))
      n = PORT_CAPACITY
    end
    for i = 0, n - 1 do add_field(ctx, t, off + 5 + 2 * i, f_port_value) end
    return off + PORT_LIST_SIZE
  end}
end

local ace_head = fields("ace.", {{"ip_type", 4, {names = ACE_IP_TYPES}}, {"type", 4, {names = ACE_TYPES}},
  {"seqno", 2}, {"reverse", 4}, {"handle", 4, HEX}})
local SELECTORS = {
  [4] = fields("ace.", {{"local_addr", 4, {ipv4 = true}}, {"local_mask", 4},
    {"remote_addr", 4, {ipv4 = true}}, {"remote_mask", 4}, {"protocol", 2}, 2, {"any_port", 4},
    port_list("Local ports"), port_list("Remote ports"), 26}),
  [6] = fields("ace.", {{"local_addr6", 16, {ipv6 = true}}, {"local_mask", 4},
    {"remote_addr6", 16, {ipv6 = true}}, {"remote_mask", 4}, {"protocol", 2}, 2, {"any_port", 4},
    port_list("Local ports"), port_list("Remote ports"), 2}),
}
local RAW_SELECTOR = {field("ace.selector", 100, {bytes = true})}
local ace_hint = {field("ace.hint", 4)}

local function ace_body(ctx, tree, off)
  off = add_layout(ctx, tree, off, ace_head)
  if not off then return nil end
  local selector = SELECTORS[ctx.v["ace.ip_type"]] or RAW_SELECTOR
  off = add_layout(ctx, tree, off, {sub("Selector", selector)})
  return off and add_layout(ctx, tree, off, ace_hint)
end

local f_action = field("action.action", 4, {names = ACTIONS})
local ACTION_DATA = {
  [1] = fields("action.", {{"notify_rp_handle", 4, HEX}, 20}),
  [3] = fields("action.", {{"sa", 4, HEX}, {"post_decrypt_check", 8, HEX}, {"post_decrypt_ivrf", 2}, 2,
    {"reinject", 4}, {"tunnel_id", 4}}),
  [4] = fields("action.", {{"sa", 4, HEX}, {"post_encrypt_fvrf", 2}, 2, {"dummy_generate", 4}, 12}),
}
local NO_ACTION_DATA = {gap(24)}

local function action_body(ctx, tree, off)
  off = add_layout(ctx, tree, off, {f_action})
  return off and add_layout(ctx, tree, off, ACTION_DATA[ctx.v["action.action"]] or NO_ACTION_DATA)
end

local record_head = fields("record.", {{"kind", 2, {names = RECORD_KINDS}}, {"length", 2}})
local ACE_RECORD = {size = 122, decode = ace_body, label = "ACE"}
local ACTION_RECORD = {size = 28, decode = action_body, label = "Action"}

-- Bodies have fixed sizes by kind: the header's length is shown, not trusted.
local function record_of_kind(kind)
  if kind >= 1 and kind <= 7 then return ACE_RECORD end
  if kind >= 8 and kind <= 11 then return ACTION_RECORD end
end

-- The stream runs to the end of the command as message_length gives it; a
-- record that does not fit before that end is cut short.
local record_stream = {width = 0, fn = function(ctx, tree, off)
  while off < ctx.cmd_end do
    if not fits(ctx, tree, off, 4, "a record header") then return nil end
    local kind = ctx.tvb(off, 2):uint()
    local rec = record_of_kind(kind)
    if not rec then
      tree:add_proto_expert_info(ef_bad_record, string.format("Record kind %d at byte %d", kind, off))
      ctx.pinfo.cols.info:append(" [bad record]")
      return nil
    end
    local t = subtree(ctx, tree, off, 4 + rec.size, rec.label .. " (" .. RECORD_KINDS[kind] .. ")")
    add_layout(ctx, t, off, record_head)
    if not fits(ctx, t, off, 4 + rec.size, rec.label .. " record") then return nil end
    if off + 4 + rec.size > ctx.cmd_end then
      cut_short(ctx, t, string.format("%s record at byte %d runs past the end of the command (byte %d)",
        rec.label, off, ctx.cmd_end))
      return nil
    end
    if not rec.decode(ctx, t, off + 4) then return nil end
    off = off + 4 + rec.size
  end
  return off
end}

-- ---- PAL ----------------------------------------------------------------------

local PAL_REQUESTS = {
  [1] = {f_callback, f_create, field("hint", 4, {names = SADB_HINTS})},
  [2] = {f_callback, f_sadb},
  [3] = {f_callback, f_sadb},
  [4] = {f_callback, f_sadb, field("attribute", 4, HEX), field("value", 4, HEX)},
  [5] = {f_callback, f_sadb, field("tunnel_id", 4), field("is_v6", 4)},
  [9] = {f_callback, f_sadb, field("static_seqno", 4), field("dyn_seqno", 4),
    sub("Update descriptor", fields("acl.", {{"what_changed", 4, {names = MAP_UPDATES}}, {"acl", 8},
      {"ace", 8}, {"delete_ace", 8}, {"ivrf", 2}, {"num_old_ace_entries", 4}})),
    record_stream},
  [11] = {f_callback, f_create, field("peer_handle", 4, HEX), f_sadb,
    sub("Peer parameters", fields("peer.", {{"do_idle_timer", 4}, {"idle_timer_setting", 4},
      {"idle_timer_handle", 4, HEX}, {"do_dpd", 4}, {"dpd_threshold", 4}, {"dpd_handle", 4, HEX},
      {"do_translation", 4}, {"inside_remote_port", 2}, {"outside_remote_port", 2}}))},
  [12] = {f_callback, f_sadb, field("peer_handle", 4)},
  [13] = fields("spi.", {f_callback, f_sadb, {"spi", 4, HEX}, {"protocol", 1}, {"fvrf", 2},
    address("spi.dest_addr", "Destination"), {"dest_mask", 4, HEX},
    address("spi.src_addr", "Source"), {"src_mask", 4, HEX},
    field("static_seqno", 4), field("dyn_seqno", 4), field("ace_index", 4), record_stream}),
  [14] = {f_callback, f_sadb, field("spi_handle", 4)},
  [15] = {f_callback, f_create, f_sadb, field("static_seqno", 4), field("dyn_seqno", 4),
    field("ace_index", 4), field("ivrf", 2), record_stream},
  [16] = {f_callback, f_create, f_sadb, f_flow_handle, record_stream},
  [17] = {f_callback, f_sadb, field("entry_handle", 4, HEX), f_create, f_flow_handle},
}

-- The agent's own message: a PAL command 21 with its full 80-byte body.
local NOTIFY = fields("notify.", {{"notify_handle", 4, HEX}, {"outbound", 4}, {"tunnel_id", 4},
  {"pkt_len", 4}, {"pkt_summary", 64, {bytes = true}}})

local STATUS_ONLY = {f_callback, f_status}
local NO_BODY = {}
local PAL_RESPONSES = {
  [1] = {f_callback, f_sadb, f_status},
  [11] = {f_callback, field("peer_handle", 4, HEX), f_status},
  [13] = {f_callback, field("flow_id", 4), f_status},
  [15] = {f_callback, f_flow_handle, f_status},
}
for _, cmd in ipairs({2, 3, 4, 5, 9, 12, 14, 16, 17}) do PAL_RESPONSES[cmd] = STATUS_ONLY end

local function pal_response_layout(cmd) return PAL_RESPONSES[cmd] or NO_BODY end

-- ---- CEAL -----------------------------------------------------------------------

local CIPHER_INFO = sub("Cipher info", fields("cipher.", {
  {"outbound", 4}, {"esp_used", 4}, {"esp_cipher", 4, {names = CIPHERS}}, {"esp_cipher_key_length", 4},
  {"esp_mac", 4, {names = MACS}}, {"esp_spi", 4, HEX}, {"ah_used", 4}, {"ah_mac", 4, {names = MACS}},
  {"ah_spi", 4, HEX}, {"ippcp_used", 4, {names = COMPRESSIONS}}, {"cpi", 2}, {"antireplay_window_size", 4},
  address("cipher.source", "Source"), address("cipher.dest", "Destination"),
  {"preserve_header", 4}, {"tunnel_id", 4}, {"mode", 4, {names = MODES}},
  {"inner_format", 4, {names = FORMATS}}, {"outer_format", 4, {names = FORMATS}}, {"ipv4_df_setting", 4},
  {"ipv6_flow_label", 4}, {"do_antireplay_check", 4}, {"extended_sequence_number", 4},
  {"replay_enabled", 4}, {"replay_tunnel_mode", 4}, {"ipsec_inline_tagging_enabled", 4},
  {"udp_encaps", 4}, {"udp_source_port", 2}, {"udp_dest_port", 2},
  address("cipher.orig_remote_ip_addr", "Original remote address"), {"ctcp_encaps", 4}, {"standby", 4},
  {"peer_handle", 4, HEX}, {"soft_time_lifetime", 8}, {"hard_time_lifetime", 8},
  {"soft_volume_lifetime", 8}, {"hard_volume_lifetime", 8}, {"negotiated_lifetime", 8},
  {"sa_handle", 4, HEX}, {"prefrag_setting", 4, {names = PREFRAGS}}, {"initial_mtu", 2},
  {"plaintext_mtu", 2}, {"cmd_handle", 4, HEX}, {"qos_group", 2}, {"qos_preclassify", 1},
  {"HA_ipsec_update_interval", 4}, {"gcm_iv_low_value", 8, HEX}, {"gcm_iv_high_value", 8, HEX},
  {"gcm_iv_warning_count", 8}, {"transform_negotiated_flags", 4, HEX}, {"support_dummy_packet", 4}}))
assert(CIPHER_INFO.width == 263)

local key_head = fields("key.", {{"type", 2, {names = KEY_TYPES}}, {"len", 2}})
local f_key_data = field("key.data", 0, {text = true})

-- Key TLVs up to the end of the command; the key bytes are masked.
local key_area = {width = 0, fn = function(ctx, tree, off)
  while off < ctx.cmd_end do
    local t = subtree(ctx, tree, off, 4, "Key")
    if not add_layout(ctx, t, off, key_head) then return nil end
    local len = ctx.v["key.len"]
    if not fits(ctx, t, off + 4, len, "key data") then return nil end
    if len > 0 then t:add(f_key_data.pf, ctx.tvb(off + 4, len), MASKED_KEY) end
    t:set_len(4 + len)
    off = off + 4 + len
  end
  return off
end}

local FLOW_HANDLE = sub("Flow handle", fields("flow.", {{"flow_id", 4}, {"ce_public_sa", 4, HEX},
  {"handle", 4, HEX}, {"is_inbound", 4}}))

-- Flow counters come in pairs: the value and its _reset twin of the same width.
local function counter_pairs(counters)
  local out = {}
  for _, c in ipairs(counters) do
    out[#out + 1] = {c[1], c[2]}
    out[#out + 1] = {c[1] .. "_reset", c[2]}
  end
  return out
end

local function concat(...)
  local out = {}
  for _, list in ipairs({...}) do for _, e in ipairs(list) do out[#out + 1] = e end end
  return out
end

local function fours(names)
  local out = {}
  for _, n in ipairs(names) do out[#out + 1] = {n, 4} end
  return out
end

local FLOW_STATS = sub("Flow statistics", fields("flow_stats.", concat(
  counter_pairs(concat({{"flow_in_bytes", 8}, {"flow_decomp_bytes", 8}}, fours({"flow_in_pkts",
    "flow_decap_fail", "flow_test_replay_fail", "flow_in_auth", "flow_in_auth_fail", "flow_decrypt_done",
    "flow_decrypt_fail", "flow_invalid_decap_pak", "flow_invalid_decap_protocol", "flow_in_sys_err",
    "flow_decomp_done", "flow_decomp_bypass", "flow_decomp_fail", "flow_in_invalid_sp",
    "flow_gdoi_max_delta", "flow_sgt_tag_extract", "flow_sgt_tag_extract_failed", "flow_recv_dummy"}),
    {{"flow_in_key_vol_lifetime", 8}, {"flow_out_bytes", 8}, {"flow_out_uncomp_bytes", 8}},
    fours({"flow_out_pkts", "flow_encap_fail", "flow_out_auth", "flow_out_auth_fail", "flow_encrypt_done",
      "flow_encrypt_fail", "flow_out_sys_err", "flow_comp_done", "flow_comp_bytes", "flow_comp_bypass",
      "flow_comp_bypass_bytes", "flow_comp_cancel", "flow_set_replay_pass", "flow_comp_bytes_fail",
      "flow_set_replay_fail", "flow_sgt_tag_insert", "flow_sgt_tag_insert_failed", "flow_send_dummy"}),
    {{"flow_out_key_vol_lifetime", 8}})),
  fours({"in_final_flg", "out_final_flg", "handle", "flow_history_stats_handle", "peer_handle",
    "sibling_handle"}),
  {{"last_update", 8}},
  fours({"is_final_stats_pending", "delete_flow", "endflowinfo_count", "in_flow", "out_flow_id",
    "gdoi_group_hdle"}))))
assert(FLOW_STATS.width == 440)

-- num_flows entries of `per_flow`, as far as the datagram goes.
local function flows(per_flow)
  return {width = 0, fn = function(ctx, tree, off)
    for _ = 1, ctx.v["num_flows"] do
      off = add_layout(ctx, tree, off, per_flow)
      if not off then return nil end
    end
    return off
  end}
end

local f_final_flg = field("final_flg", 4, HEX)
local f_num_flows = field("num_flows", 4)
local f_ivrf_index = field("ivrf_index", 2)
local f_sadb_ivrf_info = field("sadb_ivrf_info_hdle", 4, HEX)
local f_engine = field("engine_handle", 4, HEX)

local CEAL_REQUESTS = {
  [0] = {f_callback, field("ipsec_index", 4, {signed = true}), field("ipsec_sa", 4, HEX), CIPHER_INFO,
    key_area},
  [1] = {f_callback, f_final_flg, f_num_flows, flows({FLOW_HANDLE})},
  [2] = {f_callback, f_ivrf_index, f_sadb_ivrf_info},
  [3] = {f_handle, f_ivrf_index, f_engine},
  [4] = {field("request_handle", 4, HEX), field("flow_id", 4), field("stats_hdle_struct", 4, HEX)},
}

local CEAL_RESPONSES = {
  [0] = {f_callback, f_status},
  [1] = {f_handle, f_final_flg, f_num_flows, f_status, flows({FLOW_HANDLE, FLOW_STATS})},
  [2] = {f_handle, f_ivrf_index, f_sadb_ivrf_info, sub("SADB statistics", fields("sadb_stats.", {
    {"ivrf_id", 2}, 2, {"sadb_invalid_decap_sa", 4}, {"sadb_invalid_encap_sa", 4}, {"last_update", 8}}))},
  [3] = {f_handle, f_ivrf_index, f_engine, sub("Global statistics", fields("global_stats.", concat(
    {{"ivrf_id", 2}, 2, {"global_decomp_bytes", 8}, {"global_in_bytes", 8}},
    fours({"global_invalid_decap_pak", "global_inbound_sys_err", "global_invalid_decap_protocol",
      "global_in_pkts", "global_decap_fail", "global_test_replay_fail", "global_in_auth",
      "global_in_auth_fail", "global_decrypt_done", "global_decrypt_fail"}),
    {{"global_out_uncomp_bytes", 8}, {"global_out_bytes", 8}},
    fours({"global_outbound_sys_err", "global_out_pkts", "global_encap_fail", "global_out_auth",
      "global_out_auth_fail", "global_encrypt_done", "global_encrypt_fail"}),
    {{"last_update", 8}})))},
  [4] = {field("request_handle", 4, HEX), f_status},
}

-- ---- request or response ------------------------------------------------------
-- Requests and responses both travel on port 23456 (responses go to the RP's
-- port 23456, and the RP may send from it), so ports cannot tell them apart.
-- The header can: a request's message_length counts the bytes after the
-- 4-byte header, a response's counts the whole datagram. Where neither holds
-- (a datagram cut short, a wrong length), the length is a response's when it
-- is the command's fixed response size. The agent's notification (PAL command
-- 21) has a request's shape.

local PAL_RESPONSE_SIZES = {[1] = 18, [11] = 18, [13] = 18, [15] = 22}
for _, cmd in ipairs({2, 3, 4, 5, 9, 12, 14, 16, 17}) do PAL_RESPONSE_SIZES[cmd] = 14 end
local CEAL_RESPONSE_SIZES = {[0] = 281, [2] = 36, [3] = 128, [4] = 14}
local FLOW_STATS_HEAD, FLOW_STATS_PER_FLOW = 22, 456

local function is_pal_response_size(cmd, len) return len == (PAL_RESPONSE_SIZES[cmd] or 6) end

local function is_ceal_response_size(api, len)
  if api == 1 then return len >= FLOW_STATS_HEAD and (len - FLOW_STATS_HEAD) % FLOW_STATS_PER_FLOW == 0 end
  return len == CEAL_RESPONSE_SIZES[api]
end

local function is_response(ctx, tree, msg_len, response_sized)
  local total = ctx.tvb:reported_len()
  if msg_len == total then return true end
  if msg_len == total - 4 then return false end
  tree:add_proto_expert_info(ef_length, string.format(
    "message_length %d in a datagram of %d bytes (request: %d, response: %d)", msg_len, total, total - 4, total))
  return response_sized
end

-- ---- top level --------------------------------------------------------------------

local KEEPALIVE = fields("keepalive.", {{"keepalive_interval", 2}, {"keepalive_retries", 2},
  {"palIp", 4, {ipv4 = true}}, {"ikeIp", 4, {ipv4 = true}}, {"hostId", 12, {text = true}}})

local function add_kind(ctx, root, kind, what)
  root:add(f_kind.pf, kind):set_generated()
  ctx.pinfo.cols.info = what .. " " .. kind
end

local function command(ctx, root, f_cmd, names, resp_sized, responses, requests)
  if not add_layout(ctx, root, 4, {f_cmd}) then return end
  local cmd, msg_len = ctx.v[f_cmd.name], ctx.v["length"]
  local what = names[cmd] or string.format("unknown command %d", cmd)
  local layout
  if is_response(ctx, root, msg_len, resp_sized(cmd, msg_len)) then
    add_kind(ctx, root, "response", what)
    layout = responses(cmd)
  elseif f_cmd == f_pal_cmd and cmd == 21 then
    add_kind(ctx, root, "notification", what)
    layout = NOTIFY
  else
    add_kind(ctx, root, "request", what)
    layout = requests[cmd]
  end
  ctx.cmd_end = 4 + msg_len
  if not layout then return add_bytes_to_end(ctx, root, 6, f_data) end
  if add_layout(ctx, root, 6, layout) and ctx.v["status"] then
    ctx.pinfo.cols.info:append(": " .. (STATUSES[ctx.v["status"]] or ctx.v["status"]))
  end
end

local function keepalive(ctx, root)
  add_kind(ctx, root, "keepalive", "MSG_KEEP_ALIVE")
  -- The agent writes this length in its own (little-endian) byte order.
  add_layout(ctx, root, 2, concat({f_length_le}, KEEPALIVE))
end

function proto.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "IPSEC_CPA"
  local ctx = {tvb = tvb, pinfo = pinfo, v = {}}
  local root = tree:add(proto, tvb())
  pinfo.cols.info = "ipsec_cpa"
  if not add_layout(ctx, root, 0, {f_type}) then return end
  local mtype = ctx.v["type"]
  root:append_text(", " .. (MSG_TYPES[mtype] or ("type " .. mtype)))
  if mtype == 3 then return keepalive(ctx, root) end
  if not add_layout(ctx, root, 2, {f_length}) then return end
  if mtype == 0 then
    command(ctx, root, f_pal_cmd, PAL_CMDS, is_pal_response_size, pal_response_layout, PAL_REQUESTS)
  elseif mtype == 1 then
    command(ctx, root, f_ceal_api, CEAL_APIS, is_ceal_response_size,
      function(api) return CEAL_RESPONSES[api] end, CEAL_REQUESTS)
  else
    pinfo.cols.info = MSG_TYPES[mtype] or string.format("unknown message type %d", mtype)
    add_bytes_to_end(ctx, root, 4, f_data)
  end
end

proto.fields = protofields
proto.experts = {ef_truncated, ef_bad_record, ef_length, ef_ports}

local udp_port = DissectorTable.get("udp.port")
udp_port:add(PAL_PORT, proto)
udp_port:add(KEEPALIVE_PORT, proto)
