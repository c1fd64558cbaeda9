/*
 * conf_def.h - basic types of the configuration service and the header of its stream messages.
 *
 * Relies on nothing but the C library. Like every header of this library it compiles as C11 and as
 * C++17 and later.
 *
 * Conventions that hold for all headers, unless a function says otherwise:
 *  - Functions return 0 on success and -1 on failure; getters return a null pointer on failure.
 *  - Every failure is logged where it happens, either in the debug file or in the system log
 *    (conf_debug.h).
 *  - Texts are zero-terminated; sizes and lengths are in bytes.
 *  - What is passed in stays the caller's. Outputs are written only on success, except where a
 *    function promises to clear them.
 *  - Nothing here starts a thread or raises a signal, and nothing takes a lock but the calls of the
 *    client table (conf_misc.h). The plugin runtime of a process (conf_api.h) is driven from one
 *    thread.
 */
#ifndef CONF_DEF_H
#define CONF_DEF_H

#include <stdint.h>

/* Unsigned integers of 8, 16 and 32 bits. */
typedef uint8_t u8_t;
typedef uint16_t u16_t;
typedef uint32_t u32_t;

/*
 * bool_t: a truth value of the size of an int in every function and structure of this library.
 *
 * `false` and `true` can be assigned to it and compared with it in C and in C++. In C they are the
 * macros of <stdbool.h>, which may be included before or after this header. C++ converts neither of
 * them to an enumeration, so there the type is the int that the C enumeration is passed as.
 */
#ifdef __cplusplus
typedef int bool_t;
#else
#include <stdbool.h>
typedef enum _conf_bool {
    CONF_BOOL_FALSE = 0,
    CONF_BOOL_TRUE = 1,
    CONF_BOOL_INT_SIZE = 0x7fffffff /* never a value: keeps the type at the size of an int */
} bool_t;
#endif

/* Leads every stream message; on a little-endian host the bytes ff ba dc fe. */
#define MSG_MAGIC 0xfedcbaffU

/*
 * The header in front of every message on a stream socket, in host byte order. The body follows
 * directly: one XML element as text, without declaration and without a terminating zero byte.
 */
typedef struct _msg_head {
    u32_t magic;  /* MSG_MAGIC */
    u32_t length; /* number of body bytes; the header is not counted */
    u16_t seq;    /* sequence number of the sender */
    u16_t format; /* always 0 */
} msg_head_t;

/* Layouts that other programs rely on are asserted where they are declared, in C and in C++. */
#ifdef __cplusplus
#define CONF_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define CONF_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/* An array of any length at the end of a structure: part of C, an extension everywhere in C++. */
#if defined(__cplusplus) && defined(__clang__)
#define CONF_FLEXIBLE_ARRAY(type, name)                                                            \
    _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wc99-extensions\"")      \
        type name[] _Pragma("clang diagnostic pop")
#elif defined(__cplusplus)
#define CONF_FLEXIBLE_ARRAY(type, name) __extension__ type name[]
#else
#define CONF_FLEXIBLE_ARRAY(type, name) type name[]
#endif

CONF_STATIC_ASSERT(sizeof(bool_t) == sizeof(int), "bool_t has the size of an int");
CONF_STATIC_ASSERT(sizeof(msg_head_t) == 12, "the message header has 12 bytes on every target");

#endif
