// See watch.h.
#include "watch.h"

#include "conf_plugin/plugin_internal.h"
#include "support/bounded.h"

#include <cstring>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace {

constexpr u32_t watched_events = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_CLOSE_WRITE |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Whether a name is one of the steps of a path.
bool is_step(const char *path, const char *name)
{
    const std::size_t length = std::strlen(name);
    for (const char *step = path; step != nullptr; step = std::strchr(step, '/')) {
        step += *step == '/' ? 1 : 0;
        if (std::strncmp(step, name, length) == 0 &&
            (step[length] == '/' || step[length] == '\0')) {
            return true;
        }
    }
    return false;
}

} // namespace

bool socket_watch::open()
{
    fd_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    return static_cast<bool>(fd_);
}

void socket_watch::begin()
{
    end();
    for (const char *path : {static_cast<const char *>(g_conf_plugin_socket), profile_path}) {
        for (int look = 0; look < most_looks && !watch_nearest(path); ++look) {
        }
    }
}

void socket_watch::end()
{
    while (count_ > 0) {
        --count_;
        (void)inotify_rm_watch(fd(), watches_[count_]);
    }
    (void)has_news();
}

// Returns false when what the path leads to next has appeared meanwhile, so that a nearer directory
// can be had.
bool socket_watch::watch_nearest(const char *path)
{
    char directory[256];
    support::copy_text(directory, sizeof directory, path);
    char *end = std::strrchr(directory, '/');
    for (bool is_direct = true; end != nullptr; is_direct = false) {
        *end = '\0';
        const int watch =
            inotify_add_watch(fd(), end == directory ? "/" : directory, watched_events);
        if (watch >= 0) {
            watches_[count_] = watch;
            ++count_;
            *end = '/';
            return is_direct || access(directory, F_OK) != 0;
        }
        end = std::strrchr(directory, '/');
    }
    return true;
}

bool socket_watch::has_news() const
{
    bool found = false;
    alignas(inotify_event) char events[4096];
    for (;;) {
        const ssize_t count = read(fd(), events, sizeof events);
        if (count <= 0) {
            return found;
        }
        for (const char *at = events; at < events + count;) {
            inotify_event event;
            std::memcpy(&event, at, sizeof event);
            const char *const name = at + sizeof event;
            const bool is_end = (event.mask & IN_IGNORED) != 0; // of a watch that was removed
            found = found || (!is_end && (event.len == 0 || is_step(g_conf_plugin_socket, name) ||
                                          is_step(profile_path, name)));
            at = name + event.len;
        }
    }
}

socket_identity present_socket()
{
    struct stat status {};
    if (stat(socket_address(g_conf_plugin_socket).sun_path, &status) != 0) {
        return {};
    }
    return {true, status.st_ino, status.st_ctim};
}
