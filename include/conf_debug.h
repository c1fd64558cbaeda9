/*
 * conf_debug.h - the two logs of the library and the masking of sensitive values.
 *
 *  - The debug file, /var/log/conf_plugin.log: off until econf_plugin_config_debug() turns it on,
 *    filtered by level, removed at the first line written after it has passed 2 MiB. A text is cut
 *    at 255 bytes. It holds the
 *    texts as they are, sensitive values included: it is for development, not for production. It is
 *    made for its owner and group only, and a process of root does not follow a link in its place.
 *    So where root writes the first line, those of processes of other users are lost. Make the
 *    file beforehand, writable for a group of theirs, to have all; it is gone again after 2 MiB.
 *  - The system log: always on. Every text is searched for passwords, keys and secrets, which are
 *    overwritten with asterisks, before it reaches syslog(3).
 *
 * Neither reports failures of its own: a message that cannot be written is lost, nothing else.
 * All functions may be called from any thread; the switch of the debug file is not synchronised.
 */
#ifndef CONF_DEBUG_H
#define CONF_DEBUG_H

#include "conf_def.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Levels of the debug file; a smaller number is more severe. */
typedef enum _conf_debug_level {
    DBG_NULL = 0,  /* none; cannot be turned on */
    DBG_CRIT = 1,  /* not used by the library */
    DBG_ERROR = 2, /* what failed */
    DBG_WARN = 3,  /* what was dropped or skipped */
    DBG_INFO = 4,  /* each message that was sent or received */
    DBG_DEBUG = 5, /* registration, activation, result and time of each callback */
    DBG_MSG = 6,   /* not used by the library */
    DBG_ALL = 7    /* everything */
} conf_debug_level_t;

/* The tag of each level in the debug file, indexed by level. */
extern const char *const g_debug_desc[8];

/* 1 while the debug file is written, else 0. Set by econf_plugin_config_debug(). */
extern int g_log_enable;

/* The most verbose level that is written. Set by econf_plugin_config_debug(). */
extern int g_log_level;

/*
 * Turns the debug file on at `level` (1 to 7) when `enable` is not 0, and off when it is 0.
 * Returns 0, or 1 when `level` is 0 or above 7 with `enable` set: then nothing changes.
 * A negative level is stored as it is and lets no message pass.
 */
int econf_plugin_config_debug(int level, int enable);

/*
 * Checks that the log file `filename` can be opened for appending, creating it when missing, and
 * prepares an output mutex, which nothing locks. `filename` may be null: then only the mutex is
 * prepared. `level` is not used, and the debug file of the library stays where and as it is.
 * Returns 0 or -1.
 */
int conf_dbg_enable(int level, char *filename);

/* Releases what conf_dbg_enable() prepared. */
void conf_dbg_disable(void);

/*
 * Sends one message to the system log, its sensitive values masked. `priority` is a facility and
 * severity as for syslog(3), for instance LOG_USER | LOG_ERR. A text of 65536 bytes or more is
 * replaced by an empty one. A text that begins with "#%" is sent as it is, unmasked.
 *
 *     safety_syslog(LOG_USER | LOG_INFO, "user %s: <password>%s</password>", name, password);
 *
 * reaches the log as "user admin: <password>******</password>".
 *
 * The first message of a process needs 32 KiB of stack, since it compiles the patterns; call
 * REG_RemarkKeyInfo(NULL, 0) before where threads have less. All others do with 16.
 */
void safety_syslog(int priority, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/*
 * Overwrites the sensitive values in the first `dataLen` bytes of `buf` with asterisks, in place.
 * Values are found line by line in three forms, for the keywords password, cipher, psk,
 * authentication-text, key, text-name and secret, in small letters, each also inside a longer word:
 *     <password>VALUE</password>
 *     password ... oldval=VALUE,newval=VALUE
 *     "password" ... : VALUE
 * What has another form stays: an attribute, a CDATA section, a value with a line break in it,
 * "password":"VALUE" without a blank behind the colon. The time it takes grows linearly with the
 * text, whatever it holds. A null `buf` only compiles the patterns.
 */
void REG_RemarkKeyInfo(char *buf, int dataLen);

/*
 * The compiled patterns behind REG_RemarkKeyInfo(), all null until its first call. It compiles all
 * of them anew when entry 0 is null, and forgets what the other entries held; it skips any other
 * entry that is null. A pattern that the program has put in place of an entry is run as it is,
 * without a bound on the time. The program may free a pattern that it has taken out of the table.
 */
struct pcre2_real_code_8;
extern struct pcre2_real_code_8 *g_oxelKeyInfoRe[21];

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
