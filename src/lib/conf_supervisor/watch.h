// Where a supervisor without a daemon looks for one: the appearance of the plugin socket in its
// directory, of that directory itself, and of the profile that names it. Relies on endpoint.cpp.
#ifndef CONF_SUPERVISOR_WATCH_H
#define CONF_SUPERVISOR_WATCH_H

#include <ctime>
#include <sys/types.h>

// A new inotify instance on the directories of socket and profile, or on the nearest directories
// above that are there; -1 when there can be none.
[[nodiscard]] int watch_for_sockets();

// Reads the events of such an instance: whether any is about one of the two paths.
[[nodiscard]] bool is_socket_event(int watch);

// The file at the socket's path: a daemon that starts makes a new one.
struct socket_identity {
    bool is_there;
    ino_t inode;
    timespec changed;

    bool operator==(const socket_identity &other) const
    {
        return is_there == other.is_there && inode == other.inode &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
};
[[nodiscard]] socket_identity present_socket();

#endif
