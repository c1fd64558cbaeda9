// What the sources of the plugin runtime share, in the order in which a message meets it.
//
// The road of a request from the daemon:
//   loop.cpp       econf_plugin_run(): one request after the other
//     frame.cpp      _recv_message(): bytes from the socket until one message is whole
//     frame.cpp      plugin_parse_message(): cut it out; xml_parse.cpp parses it
//     envelope.cpp   plugin_parse_rpc(): method and parameters
//   loop.cpp       method table; callbacks.cpp finds the callback
//     reply.cpp      result, or what error.cpp has recorded; envelope.cpp wraps it
//     exchange.cpp   _syn_send_reply(): queue, write, wait for room
//     frame.cpp      _cache_message(): xml_write.cpp prints it; send_at_once(), _send_message()
// A request of the plugin goes the other way: built where it is made (registration.cpp,
// activation.cpp, request.cpp), wrapped by envelope.cpp, exchanged by exchange.cpp with the help of
// frame.cpp.
//
// Where there is a supervisor (conf_supervisor/), it takes the place of econf_plugin_run(), and
// supervision.h says what the exchange does otherwise.
//
// frame, xml and envelope never call upwards. endpoint, path and notify stand beside the road;
// registry is what all find their context through.
#ifndef CONF_PLUGIN_INTERNAL_H
#define CONF_PLUGIN_INTERNAL_H

#include "conf_plugin.h"
#include "support/owners.h"
#include "xml_write.h"

#include <cstdarg>
#include <span>
#include <sys/un.h>

// ---- registry.cpp ------------------------------------------------------------------------------

// Changes whenever the plugin context of the process is made or released: an address alone does not
// tell, for a new context may stand where an older one stood.
[[nodiscard]] unsigned context_generation();
void advance_context_generation();

// Tells after a callback whether the context that it was called for is still there: the callback
// may have closed the plugin, registered anew or forked.
class context_guard {
public:
    explicit context_guard(const conf_plugin_context_t *ctxt);
    [[nodiscard]] bool is_gone() const;

private:
    const conf_plugin_context_t *ctxt_;
    unsigned generation_;
};

// ---- endpoint.cpp, path.cpp --------------------------------------------------------------------

// The daemon's profile, which names the directory of its sockets.
inline constexpr const char *profile_path = "/dev/shm/yang_modules/confd.conf";

// The socket address of a path, cut to the 107 characters that an address can hold.
[[nodiscard]] sockaddr_un socket_address(const char *path);

// Removes, in place, the quoting of the key values in a path, where the bare value means the same.
// Returns `src`, which may be null.
char *datastore_path_rm_quotes(char *src);

// ---- frame.cpp ---------------------------------------------------------------------------------

// How much a read may take out of the socket: all there is, or nothing beyond the first message, so
// that a later message still makes the socket readable.
enum class take { everything, one_message };

// Appends a framed message to a buffer, whose data are as before unless the result is `whole`.
enum class appended { whole, no_head, no_body, not_printable };
[[nodiscard]] appended append_message(conf_buffer_t **buffer, const xmlNode *root, u16_t seq,
                                      odd_bytes odd);

// Appends a framed message to the send buffer. Returns 0, or -1 with its data as before.
[[nodiscard]] int _cache_message(conf_plugin_data *plugin, const xmlNode *root, odd_bytes odd);

// Writes once, at most the rest of the first queued message. Returns 0 when something, everything
// or, for now, nothing could be written; -1 when the socket is broken.
[[nodiscard]] int _send_message(conf_plugin_data *plugin);

// Writes all that is queued, as far as it goes without a wait, and reports no failure. Returns
// whether nothing is left.
[[nodiscard]] bool send_at_once(conf_plugin_data *plugin);

// Reads until the receive buffer begins with a complete message (`ready`) or the socket has nothing
// more. Returns 0, or -1 with the receive buffer emptied.
[[nodiscard]] int _recv_message(conf_plugin_data *plugin, bool_t *ready,
                                take amount = take::everything);

// The complete message that begins at an offset, header included; and the tree of its body, as
// plugin_parse_message() gives it, while the message stays where it is, changed.
[[nodiscard]] std::span<const char> first_message(const conf_buffer_t *buffer, int offset);
[[nodiscard]] xmlNode *parse_message_at(conf_buffer_t *buffer, int offset);

// Bytes that wait to be written.
[[nodiscard]] int unsent(const conf_plugin_context_t *ctxt);

// Takes a request of `size` bytes back, the last one queued, as far as it has not been begun.
void take_back(conf_plugin_context_t *ctxt, int size);

// Empty the buffers of a connection after a failed exchange.
void drop_unsent(conf_plugin_data *plugin);
void drop_received(conf_plugin_data *plugin);

// ---- service.cpp -------------------------------------------------------------------------------

// Binds a service socket in place of what stands at its path, readable and writable for owner and
// group. Returns what bind() returns.
[[nodiscard]] int bind_service(int sock, const sockaddr_un &address);

// Closes a service socket, if it is one, and removes its file.
void close_service(int sock, const char *path);

// ---- exchange.cpp ------------------------------------------------------------------------------

// An epoll instance that watches one socket; empty, with the cause logged, when it cannot be had.
[[nodiscard]] support::unique_fd watch_socket(int sock, u32_t events);

// Sends a request and waits for the reply that carries its id, which the caller then owns.
// Messages that arrive before it are dropped. Returns 0 or -1.
[[nodiscard]] int _syn_send_rpc(conf_plugin_data *plugin, xmlNode *rpc, xmlNode **reply);

// Sends a reply and waits until it has been written whole. Returns 0 or -1.
[[nodiscard]] int _syn_send_reply(conf_plugin_data *plugin, xmlNode *reply);

// Sends a request whose reply says no more than success or error. Returns 0 for a result, -1 for an
// error and for every failure.
[[nodiscard]] int _plugin_single_rpc_send(conf_plugin_data *plugin, xmlNode *rpc);

// Tells the exchange, for its lifetime, that it runs inside the event loop, which will handle what
// an exchange leaves in the receive buffer. Outside of it an exchange takes nothing beyond its
// reply out of the socket.
class loop_scope {
public:
    loop_scope();
    ~loop_scope();
    loop_scope(const loop_scope &) = delete;
    loop_scope &operator=(const loop_scope &) = delete;

private:
    unsigned outer_;
};

// ---- loop.cpp ----------------------------------------------------------------------------------

// Answers a request of the daemon; null, for one that could not be parsed, is logged only.
void handle_request(conf_plugin_data *plugin, xmlNode *rpc);

// ---- error.cpp ---------------------------------------------------------------------------------

// The text of an error that nobody described. Shared, never freed.
extern char def_err_msg[];

// Prints a text of any length into a block that is as large as it from the start: one that grows
// leaves its beginning behind. To be released with release_error_text(). Null when there is no
// memory and when the format cannot be expanded.
[[nodiscard, gnu::format(printf, 1, 0)]] char *print_whole(const char *format,
                                                           std::va_list arguments);

// Records the error that the next reply carries; a null format gives the default text.
__attribute__((format(printf, 3, 4))) void _plugin_set_error(conf_plugin_data *plugin, int err_code,
                                                             const char *err_msg, ...);

// Forgets a recorded error.
void clear_error(conf_plugin_context_t *ctxt);

// Releases an error text unless it is null or the default text.
void release_error_text(char *err_msg);

// ---- callbacks.cpp -----------------------------------------------------------------------------

// Kinds of callbacks, in the order in which they get their indices.
enum class callback_kind { config, status, operate };

// Callbacks of every type are stored as one type and converted back before they are called.
template <typename target, typename source>
target function_cast(source function)
{
    return reinterpret_cast<target>(reinterpret_cast<void (*)()>(function));
}

// Fill the table, which has room for all: slot 0 first, then kind by kind.
void begin_table(conf_plugin_context_t *ctxt, void (*kick_off)());
void announce_kind(const conf_plugin_context_t *ctxt, callback_kind kind);
void announce_callback(conf_plugin_context_t *ctxt, econf_subpub_cb_t callback);
void forget_table();

// The callback of an index that was announced for that kind; null for every other number. Slot 0,
// the kick-off, was never announced.
[[nodiscard]] econf_subpub_cb_t announced_callback(const conf_plugin_context_t *ctxt,
                                                   callback_kind kind, int index);

// ---- registration.cpp, activation.cpp ----------------------------------------------------------

// Releases the plugin context of the process, if any, with everything that it owns.
void _free_plugin_context(conf_plugin_data *plugin);

// Whether the process has a plugin that is activated; the record may be null.
[[nodiscard]] bool is_active(const conf_plugin_data *plugin);

#endif
