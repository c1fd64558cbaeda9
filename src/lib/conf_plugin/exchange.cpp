// The blocking exchange with the daemon over the non-blocking socket: a request and its reply, and
// a reply alone. Relies on frame.cpp for the bytes and on envelope.cpp for the documents.
//
// Before the first wait the message is written at once: a Unix socket reports no room while more
// than a quarter of its buffer is unread, although a write would still succeed. Where something is
// left to write, the waits go through an epoll instance that lives for one exchange, whose events
// tell of new room only. A wait for the reply alone needs one when it takes long: that the daemon
// takes the request out of the socket begins the limit anew.
#include "conf_misc.h"
#include "plugin_internal.h"
#include "supervision.h"
#include "support/log.h"
#include "wire.h"
#include "xml.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <utility>

namespace {

constexpr u32_t failure_events = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr u32_t request_events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
constexpr u32_t reply_events = EPOLLOUT | EPOLLRDHUP | EPOLLET;
constexpr u32_t silence = EPOLLONESHOT; // a bit that no event carries

// The generation of the context whose event loop is running; 0 for none.
unsigned g_loop_generation = 0;

take amount_to_take()
{
    return g_loop_generation == context_generation() ? take::everything : take::one_message;
}

// How long a wait may last: the limit of a plain plugin, which begins anew with each event, or what
// is left to a supervised one.
[[gnu::noinline]] int limited(int limit)
{
    const supervision *const supervisor = supervised();
    return supervisor == nullptr ? limit : supervisor->time_left();
}

// The bits of the event that a wait has ended with; 0 means that the exchange has failed, with the
// cause logged.
u32_t judged(int count, u32_t events)
{
    if (count <= 0) {
        LOG_FILE_ERROR("Epoll wait failed(%s).", count == 0 ? "timeout" : std::strerror(errno));
        return 0;
    }
    if ((events & failure_events) != 0) {
        LOG_FILE_ERROR("An error epoll event occur(0x%x).", events);
        return 0;
    }
    return events;
}

// Waits for one event; a limit of a plain plugin begins anew after an interruption.
u32_t wait_for_room(const support::unique_fd &epoll, int limit)
{
    epoll_event event{};
    int count;
    do {
        count = epoll_wait(epoll.get(), &event, 1, limited(limit));
    } while (count < 0 && errno == EINTR);
    return judged(count, event.events);
}

// Waits a short time for the reply alone; returns `silence` when nothing comes. The bits of poll()
// are those of epoll. Room is asked for only where the events are reported: it is there most of the
// time.
u32_t wait_for_bytes(int sock)
{
    pollfd state = {sock, EPOLLIN | EPOLLRDHUP, 0};
    int count;
    do {
        count = poll(&state, 1, std::min(wire::quick_wait, limited(wire::quick_wait)));
    } while (count < 0 && errno == EINTR);
    if (count == 0) {
        return silence;
    }
    if ((state.revents & POLLNVAL) != 0) { // closed by somebody else, which ends no wait
        errno = EBADF;
        return judged(-1, 0);
    }
    auto events = static_cast<u32_t>(state.revents);
    if ((events & failure_events) != 0) {
        state.events |= EPOLLOUT;
        (void)poll(&state, 1, 0);
        events |= static_cast<u32_t>(state.revents);
    }
    return judged(count, events);
}

// Waits for what a request waits for: without an epoll instance that is the reply alone, until that
// takes long.
u32_t wait_for_request(int sock, support::unique_fd &epoll)
{
    if (!epoll) {
        const u32_t events = wait_for_bytes(sock);
        if (events != silence) {
            return events;
        }
        epoll.reset(watch_socket(sock, request_events).release());
    }
    return epoll ? wait_for_room(epoll, wire::request_wait) : 0;
}

void note_sent(u32_t msg_id, int result)
{
    LOG_FILE_INFO("Syn send rpc on send evt msg_id:%u, ret:%u", msg_id, static_cast<u32_t>(result));
}

void note_received(u32_t msg_id, int result)
{
    LOG_FILE_INFO("Syn send rpc on recv evt msg_id:%u. ret:%u", msg_id, static_cast<u32_t>(result));
}

bool is_request(const xmlNode *message)
{
    return is_element(message, "rpc");
}

// The daemon numbers its requests on its own, so one may carry the awaited id.
bool is_awaited(xmlNode *message, u32_t msg_id)
{
    return msg_id != 0 && !is_request(message) && plugin_get_msgid(message) == msg_id;
}

// The daemon waits for the answer to a request; why none comes should be found out.
void note_dropped(xmlNode *message)
{
    if (is_request(message)) {
        LOG_FILE_WARN("Request %s of confd with id %u is dropped, for a reply is awaited.",
                      conf_get_node_content(child_element(message, "method")),
                      plugin_get_msgid(message));
    }
}

// Takes out every complete message until the awaited reply is found: no further event may come for
// what has arrived already. Requests go, or are kept for the loop where there is a supervisor.
// Returns -1 when the stream is broken.
int receive_reply(conf_plugin_data *plugin, u32_t msg_id, xmlNode **reply)
{
    supervision *const supervisor = supervised();
    const take amount = amount_to_take();
    while (*reply == nullptr) {
        bool_t ready = false;
        if (_recv_message(plugin, &ready, amount) != 0) {
            note_received(msg_id, -1);
            return -1;
        }
        LOG_FILE_INFO("Syn send rpc on recv evt, ready is %u", static_cast<u32_t>(ready));
        if (!ready) {
            return 0;
        }
        conf_buffer_t **const buffer = &plugin->plugin_ctxt->recv_buf;
        const bool is_kept = supervisor != nullptr && supervisor->keep_first(*buffer);
        wiped_node message(plugin_parse_message(buffer));
        if (is_kept && !(message && is_request(message.get()))) {
            supervisor->forget_last();
        }
        if (message && is_awaited(message.get(), msg_id)) {
            *reply = message.release();
        } else if (message && !is_kept) {
            note_dropped(message.get());
        }
        note_received(msg_id, 0);
        if (*reply == nullptr && supervisor != nullptr && supervisor->time_left() == 0) {
            return -1; // however much the daemon sends meanwhile
        }
    }
    return 0;
}

// Writes on where there is room. More than one message is queued when an exchange before has ended
// without having written all of its request.
int send_on(conf_plugin_data *plugin)
{
    if (_send_message(plugin) != 0) {
        return -1;
    }
    if (plugin->plugin_ctxt->send_pos == 0) {
        (void)send_at_once(plugin);
    }
    return 0;
}

// Sends what is left of the request and receives until the reply is there. Without an epoll
// instance nothing is left. The id is 0 as long as nothing has been written: what arrives until
// then is no reply.
int converse(conf_plugin_data *plugin, support::unique_fd epoll, u32_t msg_id, xmlNode **reply)
{
    const conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    while (*reply == nullptr) {
        const u32_t events = wait_for_request(ctxt->sock, epoll);
        if (events == 0) {
            return -1;
        }
        int sent = 0;
        if ((events & EPOLLOUT) != 0) {
            msg_id = msg_id != 0 ? msg_id : ctxt->rpc_id;
            sent = send_on(plugin);
        }
        note_sent(msg_id, sent);
        if (sent != 0) {
            return -1;
        }
        if ((events & (EPOLLIN | EPOLLPRI)) == 0) {
            note_received(msg_id, 0);
        } else if (receive_reply(plugin, msg_id, reply) != 0) {
            return -1;
        }
    }
    return 0;
}

// Waits for room until all that is queued has gone out.
int write_out(conf_plugin_data *plugin, const support::unique_fd &epoll)
{
    while (conf_buffer_length(plugin->plugin_ctxt->send_buf) > 0) {
        if (wait_for_room(epoll, wire::reply_wait) == 0 || send_on(plugin) != 0) {
            return -1;
        }
    }
    return 0;
}

} // namespace

loop_scope::loop_scope() : outer_(g_loop_generation)
{
    g_loop_generation = context_generation();
}

loop_scope::~loop_scope()
{
    g_loop_generation = outer_;
}

support::unique_fd watch_socket(int sock, u32_t events)
{
    support::unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll) {
        LOG_FILE_ERROR("Create epoll fd failed(%s).", std::strerror(errno));
        return epoll;
    }
    epoll_event event{};
    event.events = events;
    event.data.fd = sock;
    if (epoll_ctl(epoll.get(), EPOLL_CTL_ADD, sock, &event) != 0) {
        LOG_FILE_ERROR("Add socket to epoll fd failed(%s).", std::strerror(errno));
        epoll.reset();
    }
    return epoll;
}

int _syn_send_rpc(conf_plugin_data *plugin, xmlNode *rpc, xmlNode **reply)
{
    *reply = nullptr;
    conf_plugin_context_t *const ctxt = plugin->plugin_ctxt;
    const int queued_before = conf_buffer_length(ctxt->send_buf);
    if (_cache_message(plugin, rpc, odd_bytes::refused) != 0) {
        return -1;
    }
    const int size = conf_buffer_length(ctxt->send_buf) - queued_before;
    supervision *const supervisor = supervised();
    if (supervisor != nullptr) {
        supervisor->begin_exchange();
    }
    u32_t msg_id = ctxt->rpc_id; // advances once the request is written
    const int queued = unsent(ctxt);
    const bool is_sent = send_at_once(plugin);
    if (unsent(ctxt) < queued) {
        note_sent(msg_id, 0);
        note_received(msg_id, 0);
    } else {
        msg_id = 0;
    }
    // What is left, the conversation sends or reports.
    support::unique_fd epoll =
        is_sent ? support::unique_fd() : watch_socket(ctxt->sock, request_events);
    const bool is_answered =
        (is_sent || epoll) && converse(plugin, std::move(epoll), msg_id, reply) == 0;
    if (supervisor != nullptr) {
        if (!is_answered) {
            take_back(ctxt, size);
        }
        supervisor->end_exchange(!is_answered);
    } else if (!is_answered) {
        drop_unsent(plugin);
        drop_received(plugin);
    }
    return is_answered ? 0 : -1;
}

int _syn_send_reply(conf_plugin_data *plugin, xmlNode *reply)
{
    if (_cache_message(plugin, reply, odd_bytes::replaced) != 0) {
        return -1;
    }
    if (send_at_once(plugin) || supervised() != nullptr) {
        return 0; // a supervisor sends what is left when there is room
    }
    const support::unique_fd epoll = watch_socket(plugin->plugin_ctxt->sock, reply_events);
    if (!epoll || write_out(plugin, epoll) != 0) {
        drop_unsent(plugin);
        return -1;
    }
    return 0;
}

int _plugin_single_rpc_send(conf_plugin_data *plugin, xmlNode *rpc)
{
    const char *name = plugin->plugin_ctxt->name;
    xmlNode *received = nullptr;
    if (_syn_send_rpc(plugin, rpc, &received) != 0) {
        LOG_FILE_ERROR("Plugin %s send rpc to confd failed.", name);
        return -1;
    }
    const wiped_node reply(received);
    xmlNode *result = nullptr;
    xmlNode *error = nullptr;
    if (plugin_parse_reply(reply.get(), &result, &error) != 0) {
        LOG_FILE_ERROR("Parse reply for plugin %s rpc failed.", name);
        return -1;
    }
    if (error != nullptr) {
        LOG_FILE_ERROR("Confd reply error(%s) for plugin %s rpc.", plugin_get_reply_errmsg(error),
                       name);
        supervision *const supervisor = supervised();
        if (supervisor != nullptr && supervisor->is_joining()) {
            const char *text = plugin_get_reply_errmsg(error);
            supervisor->explain("The daemon refuses: %s", text == nullptr ? "no reason" : text);
        }
        return -1;
    }
    return 0;
}
