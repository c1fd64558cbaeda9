// The two ways to report what happens: the debug file, for the plugin runtime and messaging, and
// the system log, for everything else. Both leave errno as they found it.
//
// The system-log macros put the severity and the place in front and the line end behind, so that
// every text of the library has the same shape: "[ERROR]file:line:function text\n".
#ifndef CONF_SUPPORT_LOG_H
#define CONF_SUPPORT_LOG_H

#include "conf_debug.h"

// Writes one line to the debug file when it is enabled and `level` passes its filter.
__attribute__((format(printf, 2, 3))) void _conf_write_log(int level, const char *format, ...);

// Size of a file in bytes; -1 for a null name or a file that cannot be examined.
[[nodiscard]] long _conf_get_file_length(const char *file_name);

#define LOG_FILE_ERROR(...) _conf_write_log(DBG_ERROR, __VA_ARGS__)
#define LOG_FILE_WARN(...) _conf_write_log(DBG_WARN, __VA_ARGS__)
#define LOG_FILE_INFO(...) _conf_write_log(DBG_INFO, __VA_ARGS__)
#define LOG_FILE_DEBUG(...) _conf_write_log(DBG_DEBUG, __VA_ARGS__)

// Facility user with the severities error, warning, informational and debug.
inline constexpr int syslog_error = 11;
inline constexpr int syslog_warning = 12;
inline constexpr int syslog_info = 14;
inline constexpr int syslog_debug = 15;

#define LOG_SYSTEM_ERROR(text, ...)                                                                \
    safety_syslog(syslog_error, "[ERROR]%s:%d:%s " text "\n", __FILE_NAME__, __LINE__,             \
                  __func__ __VA_OPT__(, ) __VA_ARGS__)
#define LOG_SYSTEM_WARN(text, ...)                                                                 \
    safety_syslog(syslog_warning, "[WARN]%s:%d:%s " text "\n", __FILE_NAME__, __LINE__,            \
                  __func__ __VA_OPT__(, ) __VA_ARGS__)
#define LOG_SYSTEM_DEBUG(text, ...)                                                                \
    safety_syslog(syslog_debug, "[DEBUG]%s:%d:%s " text "\n", __FILE_NAME__, __LINE__,             \
                  __func__ __VA_OPT__(, ) __VA_ARGS__)
// The informational form names file and line only.
#define LOG_SYSTEM_INFO(text, ...)                                                                 \
    safety_syslog(syslog_info, "[INFO]%s:%d " text "\n", __FILE_NAME__,                            \
                  __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#endif
