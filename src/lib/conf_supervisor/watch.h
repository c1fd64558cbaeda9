// Where a supervisor without a daemon looks for one: the appearance of the plugin socket in its
// directory, of that directory itself, and of the profile that names it. Relies on endpoint.cpp.
#ifndef CONF_SUPERVISOR_WATCH_H
#define CONF_SUPERVISOR_WATCH_H

#include "support/owners.h"

#include <ctime>
#include <sys/types.h>

// One inotify instance for a supervisor's whole life: closing one that has watches waits for the
// kernel, for 10 ms and more, and so it is their removal that ends the watching.
class socket_watch {
public:
    // Makes the instance; false when there can be none.
    [[nodiscard]] bool open();
    [[nodiscard]] int fd() const { return fd_.get(); } // -1 before that

    // Watches the directories of socket and profile, or the nearest directories above that are
    // there. What was watched and what has happened before is forgotten.
    void begin();
    // Watches nothing, so that the descriptor is not readable.
    void end();

    // Reads what has happened: whether any of it is about one of the two paths.
    [[nodiscard]] bool has_news() const;

private:
    // Directories may come and go while they are looked at; the next attempt looks again.
    static constexpr int most_looks = 4;

    bool watch_nearest(const char *path);

    support::unique_fd fd_;
    int watches_[2 * most_looks];
    int count_ = 0;
};

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
