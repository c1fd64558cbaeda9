// Private namespaces in which the fixed paths of the library belong to one program alone.
//
// enter() moves the calling process, which must have one thread only, into new user, mount and IPC
// namespaces (and a network namespace when asked), without needing root. Inside, /dev/shm,
// /var/log, /var/tmp, /mnt and /dev (with the usual devices, without /dev/log) are empty, and
// System V objects are private. Nothing of it is seen outside, and all of it goes with the process.
//
// When the current directory, the program or a path of `keep` lies below one of the covered
// directories (/var/tmp/build/tests, say), what stands right below the covered one and leads to it
// (/var/tmp/build) stays reachable at its place.
#ifndef CONFSVC_SANDBOX_H
#define CONFSVC_SANDBOX_H

#include <string>
#include <vector>

namespace sandbox {

struct options {
    bool network = false; // a network namespace of its own, with only a loopback interface, up
    std::vector<std::string> keep; // further paths that must stay reachable
};

// Returns false with a reason in `error`; the process must then exit.
[[nodiscard]] bool enter(const options &wanted, std::string &error);

} // namespace sandbox

#endif
