// Framing: queues and writes messages with their 12-byte header, reads bytes until a message is
// whole, finds the way back into a damaged stream, and cuts messages out.
// Relies on the byte buffer and on xml.h. Never waits: that is the business of its callers.
#include "conf_buffer_internal.h"
#include "plugin_internal.h"
#include "support/bounded.h"
#include "support/log.h"
#include "wire.h"
#include "xml.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

msg_head_t read_head(const conf_buffer_t *buffer)
{
    msg_head_t head;
    std::memcpy(&head, buffer->buf, sizeof head);
    return head;
}

// Fits an int: both callers have seen that the whole message is in a buffer.
int message_size(const msg_head_t &head)
{
    return wire::head_size + static_cast<int>(head.length);
}

bool is_sound(const msg_head_t &head)
{
    return head.magic == MSG_MAGIC && head.length <= wire::max_body;
}

bool is_whole(const conf_buffer_t *buffer)
{
    return buffer->used >= wire::head_size &&
           std::int64_t{wire::head_size} + read_head(buffer).length <= buffer->used;
}

// ---- writing -----------------------------------------------------------------------------------

void advance_id(conf_plugin_context_t *ctxt)
{
    ctxt->rpc_id = ctxt->rpc_id == UINT16_MAX ? 1 : static_cast<u16_t>(ctxt->rpc_id + 1);
}

enum class written { whole, part, nothing, failed };

written write_first_message(conf_plugin_context_t *ctxt)
{
    const int size = message_size(read_head(ctxt->send_buf));
    const auto pending = static_cast<u32_t>(size) - ctxt->send_pos;
    // A peer that is gone gives EPIPE, never a signal that could end the host process. Like recv()
    // below, this fails for a descriptor that has come to be something else than a socket.
    const ssize_t count =
        send(ctxt->sock, ctxt->send_buf->buf + ctxt->send_pos, pending, MSG_NOSIGNAL);
    if (count < 0) {
        return errno == EAGAIN ? written::nothing : written::failed;
    }

    LOG_FILE_INFO("Send message to confd.");
    if (static_cast<u32_t>(count) < pending) {
        ctxt->send_pos += static_cast<u32_t>(count);
        return written::part;
    }
    conf_buffer_consume(&ctxt->send_buf, size);
    ctxt->send_pos = 0;
    advance_id(ctxt);
    return written::whole;
}

// ---- reading -----------------------------------------------------------------------------------

// The offset of the first magic from `from` on; `end` when none begins before it.
int find_magic(const char *bytes, int from, int end)
{
    const u32_t magic = MSG_MAGIC;
    while (from < end && std::memcmp(bytes + from, &magic, sizeof magic) != 0) {
        ++from;
    }
    return from;
}

// Drops what cannot be a message: up to the next magic or, without one, all but the last bytes,
// which may be the beginning of a header. The body of a message that is too long goes the same way:
// a magic cannot stand in UTF-8.
void resynchronise(conf_buffer_t **buffer)
{
    while ((*buffer)->used > wire::head_size && !is_sound(read_head(*buffer))) {
        const msg_head_t head = read_head(*buffer);
        if (head.magic == MSG_MAGIC) {
            LOG_FILE_WARN("Skip a message of %u bytes from confd, more than %u are not taken.",
                          head.length, wire::max_body);
        }
        const int last = (*buffer)->used - wire::head_size;
        conf_buffer_consume(buffer, find_magic((*buffer)->buf, 1, last));
    }
}

bool is_damaged(const conf_buffer_t *buffer)
{
    return buffer->used >= wire::head_size && !is_sound(read_head(buffer));
}

// How many bytes the next read may take.
int read_room(const conf_buffer_t *buffer, take amount)
{
    if (is_damaged(buffer)) {
        return wire::skip_size;
    }
    const int missing = buffer->used < wire::head_size
                            ? wire::head_size - buffer->used
                            : message_size(read_head(buffer)) - buffer->used;
    const int room = std::min(missing, wire::read_size);
    if (amount == take::one_message) {
        return room;
    }
    // Most messages are small: the buffer need not grow for what may not come.
    const int free = buffer->total - buffer->used - 1;
    return std::max(room, free >= wire::least_read ? free : wire::burst_read);
}

// Inlined into the pass over a body, as the exported form cannot be.
bool is_valid(char p)
{
    const auto byte = static_cast<unsigned char>(p);
    return byte >= 32 || byte == '\t' || byte == '\n' || byte == '\r';
}

// Of the bytes that were only looked at, those up to and with the header of the next message: a
// reader that takes one message leaves everything behind it in the socket.
ssize_t count_to_header(const conf_buffer_t *buffer, ssize_t seen)
{
    const int end = buffer->used + static_cast<int>(seen);
    const int magic = find_magic(buffer->buf, 1, end - wire::magic_size + 1);
    return std::min<ssize_t>(seen, magic + wire::head_size - buffer->used);
}

// Reads straight into the room behind the data of a buffer.
ssize_t receive(int sock, conf_buffer_t *buffer, int room, take amount)
{
    char *const end = buffer->buf + buffer->used;
    if (amount == take::everything || !is_damaged(buffer)) {
        return recv(sock, end, static_cast<std::size_t>(room), 0);
    }
    const ssize_t seen = recv(sock, end, static_cast<std::size_t>(room), MSG_PEEK);
    if (seen <= 0) {
        return seen;
    }
    const ssize_t wanted = count_to_header(buffer, seen);
    support::wipe(end + wanted, static_cast<std::size_t>(seen - wanted));
    return recv(sock, end, static_cast<std::size_t>(wanted), 0);
}

enum class got { bytes, nothing, failed };

got read_into(int sock, conf_buffer_t **buffer, take amount)
{
    const int room = read_room(*buffer, amount);
    conf_buffer_t *const grown = conf_buffer_expand(*buffer, room);
    if (grown == nullptr) {
        LOG_FILE_ERROR("Cache receive message failed.");
        return got::failed;
    }
    *buffer = grown;
    const ssize_t count = receive(sock, grown, room, amount);
    if (count == 0 || (count < 0 && errno == EAGAIN)) {
        return got::nothing;
    }
    if (count < 0) {
        LOG_FILE_ERROR("Read message from confd failed(%s).", std::strerror(errno));
        return got::failed;
    }
    LOG_FILE_INFO("Read message from confd(%d bytes).", static_cast<int>(count));
    grown->used += static_cast<int>(count); // behind the data everything is zero already
    return got::bytes;
}

} // namespace

int _cache_message(conf_plugin_data *plugin, xmlNode *root)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    const node_text body(root);
    if (body.result() == node_text::outcome::no_buffer) {
        LOG_FILE_ERROR("Create xml buffer for cache rpc failed.");
        return -1;
    }
    if (body.result() != node_text::outcome::made) {
        LOG_FILE_ERROR("Dump rpc node failed.");
        return -1;
    }

    const int length = static_cast<int>(body.text().size());
    msg_head_t head = {MSG_MAGIC, static_cast<u32_t>(length), static_cast<u16_t>(ctxt->rpc_id - 1),
                       0};
    const int queued = conf_buffer_length(ctxt->send_buf);
    if (conf_buffer_append(&ctxt->send_buf, &head, wire::head_size) != 0) {
        LOG_FILE_ERROR("Append rpc message header to buffer failed.");
        return -1;
    }
    if (conf_buffer_append(&ctxt->send_buf, const_cast<char *>(body.text().data()), length) != 0) {
        conf_buffer_remove(ctxt->send_buf, queued, wire::head_size);
        LOG_FILE_ERROR("Append rpc message body to buffer failed.");
        return -1;
    }
    return 0;
}

int _send_message(conf_plugin_data *plugin)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    if (conf_buffer_length(ctxt->send_buf) == 0) {
        return 0;
    }
    if (write_first_message(ctxt) == written::failed) {
        LOG_FILE_ERROR("Send message to confd failed(%s).", std::strerror(errno));
        return -1;
    }
    return 0;
}

bool send_at_once(conf_plugin_data *plugin)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    while (conf_buffer_length(ctxt->send_buf) > 0) {
        if (write_first_message(ctxt) != written::whole) {
            return false;
        }
    }
    return true;
}

int _recv_message(conf_plugin_data *plugin, bool_t *ready, take amount)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    *ready = false;
    for (;;) {
        resynchronise(&ctxt->recv_buf);
        // A header alone passes for one whatever its magic is, but only where nothing follows it.
        if (is_whole(ctxt->recv_buf) && is_sound(read_head(ctxt->recv_buf))) {
            *ready = true;
            return 0;
        }
        switch (read_into(ctxt->sock, &ctxt->recv_buf, amount)) {
        case got::bytes:
            break;
        case got::nothing:
            *ready = is_whole(ctxt->recv_buf);
            return 0;
        case got::failed:
            drop_received(plugin);
            return -1;
        }
    }
}

int unsent(const conf_plugin_context_t *ctxt)
{
    return conf_buffer_length(ctxt->send_buf) - static_cast<int>(ctxt->send_pos);
}

void take_back(conf_plugin_context_t *ctxt, int size)
{
    if (unsent(ctxt) == 0) {
        return;
    }
    const int start = conf_buffer_length(ctxt->send_buf) - size;
    if (start > 0 || ctxt->send_pos == 0) {
        conf_buffer_remove(ctxt->send_buf, start, size);
    } else { // its rest goes out, with an id that no later request has
        advance_id(ctxt);
    }
}

void drop_unsent(conf_plugin_data *plugin)
{
    conf_buffer_clear(&plugin->plugin_ctxt->send_buf);
    plugin->plugin_ctxt->send_pos = 0;
}

void drop_received(conf_plugin_data *plugin)
{
    conf_buffer_clear(&plugin->plugin_ctxt->recv_buf);
}

std::span<const char> first_message(const conf_buffer_t *buffer, int offset)
{
    msg_head_t head;
    std::memcpy(&head, buffer->buf + offset, sizeof head);
    return {buffer->buf + offset, static_cast<std::size_t>(message_size(head))};
}

xmlNode *parse_message_at(conf_buffer_t *buffer, int offset)
{
    const std::size_t size = first_message(buffer, offset).size();
    const std::span<char> body(buffer->buf + offset + wire::head_size, size - wire::head_size);

    // The message leaves the buffer in any case, so its bytes can be changed where they stand.
    for (char &byte : body) {
        byte = is_valid(byte) ? byte : ' ';
    }
    const parse_result parsed = parse_body(body);
    if (parsed.root == nullptr) {
        LOG_FILE_ERROR("%s", parsed.failed_copy ? "Copy node failed when parse plugin message."
                                                : "Translate rpc message to xml dom tree failed.");
    }
    return parsed.root;
}

xmlNode *plugin_parse_message(conf_buffer_t **buf)
{
    if (buf == nullptr || *buf == nullptr || !is_whole(*buf)) {
        return nullptr; // not what a caller may pass, but no reason to read beyond the data
    }
    const int size = message_size(read_head(*buf));
    xmlNode *const root = parse_message_at(*buf, 0);
    conf_buffer_consume(buf, size);
    return root;
}

bool_t is_valid_xmlchr(const char p)
{
    return is_valid(p);
}
