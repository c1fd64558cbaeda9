// What the message path needs of a buffer beyond conf_buffer.h.
//
// All operations keep everything behind the data zero, up to the end of the mapping. So whatever
// leaves the data is wiped when it leaves, and memory that is given back holds nothing.
#ifndef CONF_BUFFER_INTERNAL_H
#define CONF_BUFFER_INTERNAL_H

#include "conf_buffer.h"

// Makes room for `len` (not negative) more bytes behind the data.
// Returns the buffer to use from then on, or null with `buf` as it was; logs the cause.
[[nodiscard]] conf_buffer_t *conf_buffer_expand(conf_buffer_t *buf, int len);

// Remove the first `len` bytes, at most all there are, or everything, when a message has left the
// buffer; nothing happens for a `len` below 1. A buffer that is then at most half full gives back
// the pages that it does not need, which costs nothing where it has only one.
void conf_buffer_consume(conf_buffer_t **buf, int len);
void conf_buffer_clear(conf_buffer_t **buf);

#endif
