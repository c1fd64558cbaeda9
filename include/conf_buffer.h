/*
 * conf_buffer.h - growable byte buffer in one anonymous memory mapping of whole pages.
 *
 * Used for all message traffic: the plugin runtime owns one buffer for what it received and one
 * for what it is about to send; an agent builds its requests into one of its own.
 *
 * The data is always followed by a zero byte, so a buffer that holds text can be read as a string.
 * Data areas are overwritten with zeros before their memory goes back to the system.
 *
 * A buffer moves when it grows (insert, append) and when it is slimmed. The functions that may move
 * it take the address of the caller's pointer and store the new address there. Never keep an older
 * pointer, nor one from conf_buffer_data(), across such a call.
 *
 * Threads: a buffer belongs to one thread at a time; nothing is locked. Refusals and failures are
 * reported in the system log; a buffer is never left half-changed.
 */
#ifndef CONF_BUFFER_H
#define CONF_BUFFER_H

#include "conf_def.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct _conf_buffer {
    int32_t total; /* size of the data area, including room for the terminating zero byte */
    int32_t used;  /* number of data bytes held */
    /* `total` bytes: the data, followed by a zero byte at index `used` */
    CONF_FLEXIBLE_ARRAY(char, buf);
} conf_buffer_t;

CONF_STATIC_ASSERT(sizeof(conf_buffer_t) == 8, "the head of a buffer has 8 bytes");
CONF_STATIC_ASSERT(offsetof(conf_buffer_t, buf) == 8, "the data follow the head directly");

/*
 * Makes an empty buffer with room for `size` data bytes and the zero byte, rounded up to a page of
 * 4096 bytes. The caller releases it with conf_buffer_destroy().
 * Returns null for a negative or too large size and when no memory can be mapped.
 */
conf_buffer_t *conf_buffer_create(int size);

/* Wipes and releases a buffer. A null `buf` is ignored. */
void conf_buffer_destroy(conf_buffer_t *buf);

/*
 * Copies `len` bytes of `context` into the buffer in front of the byte at `offset` (0 to the
 * current length). Grows the buffer when needed, to at least 128 KiB.
 * `context` must not lie inside the same buffer; such a call, a null argument, a negative `len`
 * and an offset outside the data are refused.
 * Returns 0, or -1 with the buffer exactly as before.
 */
int conf_buffer_insert(conf_buffer_t **buf, int offset, void *context, int len);

/*
 * Copies `len` bytes of `context` to the end of the buffer; otherwise as conf_buffer_insert().
 *
 *     conf_buffer_t *text = conf_buffer_create(0);
 *     char hello[] = "hello";
 *     if (text != NULL && conf_buffer_append(&text, hello, 5) == 0)
 *         puts(conf_buffer_data(text));
 *     conf_buffer_destroy(text);
 */
int conf_buffer_append(conf_buffer_t **buf, void *context, int len);

/*
 * Removes `len` bytes from `start`; a range that reaches beyond the data cuts them at `start`.
 * The memory of the buffer does not shrink; the bytes that the data give up are wiped.
 * A null buffer, a negative start, a length below 1 and a start at or beyond the end are refused.
 */
void conf_buffer_remove(conf_buffer_t *buf, int start, int len);

/* Empties the buffer and wipes what it held; its memory stays. A null `buf` is ignored. */
void conf_buffer_flush(conf_buffer_t *buf);

/*
 * Moves a buffer that is at most half full into a new mapping that just fits, and wipes and
 * releases the old one. A one-page buffer is moved too, into another page. On failure the buffer
 * stays as it was.
 */
void conf_buffer_slim(conf_buffer_t **buf);

/* The data, followed by a zero byte; valid until the buffer moves. Null for a null buffer. */
char *conf_buffer_data(conf_buffer_t *buf);

/* The number of data bytes; 0 for a null buffer. */
int conf_buffer_length(conf_buffer_t *buf);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
