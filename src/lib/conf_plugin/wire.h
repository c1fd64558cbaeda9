// What the stream protocol fixes: names, limits and waits, each with its reason. The header layout
// itself is public (conf_def.h).
#ifndef CONF_PLUGIN_WIRE_H
#define CONF_PLUGIN_WIRE_H

#include "conf_def.h"

#include <cstddef>

namespace wire {

inline constexpr int head_size = static_cast<int>(sizeof(msg_head_t));
inline constexpr int magic_size = static_cast<int>(sizeof(u32_t));
static_assert(offsetof(msg_head_t, magic) == 0 && offsetof(msg_head_t, length) == 4 &&
                  offsetof(msg_head_t, seq) == 8 && offsetof(msg_head_t, format) == 10,
              "readers and writers of other programs rely on these offsets");

// The largest body that a reader waits for. The whole configuration of a device takes a few
// megabytes; a field beyond this is damage, and believing it would let a broken peer fill the
// memory of the process.
inline constexpr u32_t max_body = 64U * 1024 * 1024;

// One read takes at most this much of a damaged stream, or of a message that is too long.
inline constexpr int skip_size = 64 * 1024;

// One read takes at most this much of a message, about what a socket holds: the buffer grows with
// what arrives, not with what a header announces.
inline constexpr int read_size = 256 * 1024;

// A read that takes all there is fills the buffer, and grows it for a burst of small messages when
// there is less room than for one of them.
inline constexpr int least_read = 1024;
inline constexpr int burst_read = 16 * 1024;

// Room that the buffers of a new plugin are created with: one page.
inline constexpr int buffer_room = 1000;

// How long one wait may last without any event, in milliseconds. Requests may make the daemon work;
// a reply only has to find room in the socket.
inline constexpr int request_wait = 300000;
inline constexpr int reply_wait = 15000;

// How long a request that is written waits for its reply before it also counts as an event that the
// daemon takes something out of the socket. Most replies are there by then, and cost less so.
inline constexpr int quick_wait = 1000;

// Connections that may wait for the daemon to accept them.
inline constexpr int service_backlog = 8;

// The profile names one directory; a larger file is not one, and would fill the memory.
inline constexpr long max_profile = 16L * 1024 * 1024;

} // namespace wire

#endif
