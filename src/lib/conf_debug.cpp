// The two logs: the debug file, off until it is asked for, and the system log, always on and
// masked.
//
// Neither keeps anything between two calls nor leaves a text behind in memory: both are used to
// report on configuration. Both may be called where errno is still to be read.
#include "conf_debug.h"

#include "support/bounded.h"
#include "support/log.h"
#include "support/owners.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#define DEBUG_FILE "/var/log/conf_plugin.log"

const char *const g_debug_desc[8] = {"NULL", "CRIT",  "ERROR", "WARN",
                                     "INFO", "DEBUG", "MSG",   "ALL"};
int g_log_enable = 0;
int g_log_level = 0;

namespace {

constexpr long debug_file_limit = 0x200000; // a file of 2 MiB stays, a longer one is removed
constexpr std::size_t debug_text_room = 256;
constexpr std::size_t debug_line_room = debug_text_room + 64; // time, tag, separators, line end
constexpr std::size_t system_text_room = 0x10000;

using stream_owner = std::unique_ptr<std::FILE, support::released_by<std::fclose>>;

pthread_mutex_t out_mutex = PTHREAD_MUTEX_INITIALIZER;

bool passes_filter(int level)
{
    return g_log_enable != 0 && level >= DBG_NULL && level <= DBG_ALL && level <= g_log_level;
}

std::tm local_time()
{
    const std::time_t now = std::time(nullptr);
    std::tm broken_down{};
    (void)localtime_r(&now, &broken_down);
    return broken_down;
}

// The file holds what it is given, unmasked: it is not for everybody to read, and nobody can have a
// privileged process write it to another place.
int open_debug_file()
{
    const int no_detour = geteuid() == 0 ? O_NOFOLLOW : 0;
    return open(DEBUG_FILE, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | no_detour, 0640);
}

void limit_debug_file()
{
    if (_conf_get_file_length(DEBUG_FILE) > debug_file_limit) {
        (void)unlink(DEBUG_FILE); // without a shell, which would look for a program in the PATH
    }
}

// One write, so that lines of several threads and processes do not mix. The next line would run
// into one that a full disk has cut short: that is taken back, with what others may have put behind
// it.
void write_line(int file, const char *line)
{
    const std::size_t length = std::strlen(line);
    const ssize_t written = write(file, line, length);
    if (written > 0 && static_cast<std::size_t>(written) < length) {
        [[maybe_unused]] const int result = ftruncate(file, lseek(file, 0, SEEK_CUR) - written);
    }
}

} // namespace

long _conf_get_file_length(const char *file_name)
{
    struct stat status {};
    if (file_name == nullptr || stat(file_name, &status) != 0) {
        return -1;
    }
    return static_cast<long>(std::min<off_t>(status.st_size, LONG_MAX)); // of 32 bits on a device
}

void _conf_write_log(int level, const char *format, ...)
{
    if (!passes_filter(level)) {
        return;
    }
    const support::errno_keeper keep;
    const std::tm now = local_time();
    char text[debug_text_room] = "";
    if (format != nullptr) { // before the file is touched, as the format may hold %m
        std::va_list arguments;
        va_start(arguments, format);
        (void)support::vprint(text, sizeof text, format, arguments);
        va_end(arguments);
    }

    limit_debug_file();
    const support::unique_fd file(open_debug_file());
    if (file && format != nullptr) {
        char line[debug_line_room];
        support::print_cut(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d[%s] - %s\r\n",
                           now.tm_year + 1900, now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min,
                           now.tm_sec, g_debug_desc[level], text);
        write_line(file.get(), line);
        support::wipe(line, sizeof line);
    }
    support::wipe(text, sizeof text);
}

void safety_syslog(int priority, const char *format, ...)
{
    const support::errno_keeper keep;
    // The patterns are compiled, deep in the stack, before there is a text to leave traces of.
    REG_RemarkKeyInfo(nullptr, 0);
    const support::heap_text text(static_cast<char *>(std::malloc(system_text_room)));
    if (format == nullptr || !text) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    const int printed = std::vsnprintf(text.get(), system_text_room, format, arguments);
    va_end(arguments);
    const bool fits = printed >= 0 && static_cast<std::size_t>(printed) < system_text_room;
    const std::size_t written = fits ? static_cast<std::size_t>(printed) + 1 : system_text_room;
    if (!fits) {
        *text = '\0';
    }

    const std::size_t sent = std::strlen(text.get());
    if (sent > 2 && std::strncmp(text.get(), "#%", 2) != 0) {
        REG_RemarkKeyInfo(text.get(), static_cast<int>(sent));
    }
    syslog(priority, "%s", text.get());
    support::wipe(text.get(), written); // a zero character (%c) may have left more than was sent
    support::wipe_stack();
}

int econf_plugin_config_debug(int level, int enable)
{
    if (enable == 0) {
        g_log_enable = 0;
        g_log_level = 0;
        return 0;
    }
    if (level == DBG_NULL || level > DBG_ALL) {
        return 1;
    }
    g_log_enable = 1;
    g_log_level = level;
    return 0;
}

int conf_dbg_enable([[maybe_unused]] int level, char *filename)
{
    stream_owner log_file;
    if (filename != nullptr) {
        log_file.reset(std::fopen(filename, "a+e"));
        if (!log_file) {
            LOG_SYSTEM_ERROR("Open file failed(%s).", std::strerror(errno));
            return -1;
        }
    }
    if (pthread_mutex_init(&out_mutex, nullptr) != 0 && filename != nullptr) {
        LOG_SYSTEM_ERROR("Initial output mutex failed.");
        return -1;
    }
    return 0;
}

void conf_dbg_disable(void)
{
    (void)pthread_mutex_destroy(&out_mutex);
}
