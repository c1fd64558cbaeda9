// What /proc tells about other processes. Of those of other users only root learns everything; what
// is not told is left out.
#ifndef CONFSIM_DOCTOR_PROCESSES_H
#define CONFSIM_DOCTOR_PROCESSES_H

#include <string>
#include <vector>

namespace confsim::doctor {

// The processes that have the same view of the file system as this one. In another mount namespace,
// a sandbox say, the same path leads elsewhere.
[[nodiscard]] std::vector<int> processes_here();

// "process 12 (confd)".
[[nodiscard]] std::string process_text(int id);

[[nodiscard]] bool is_stopped(int id);

// The files of the library that a process has loaded; one that was replaced since ends in
// " (deleted)".
[[nodiscard]] std::vector<std::string> loaded_libraries(int id);

// The processes that hold a socket which was bound to `path` and takes connections or datagrams,
// also when another one has taken its place in the file system.
[[nodiscard]] std::vector<int> holders_of_socket(const std::string &path);

} // namespace confsim::doctor

#endif
