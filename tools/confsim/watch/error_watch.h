// Hears of the errors that plugins record, from the library that is loaded into their processes;
// see watch.c. Only programs that confsim starts have it.
#ifndef CONFSIM_ERROR_WATCH_H
#define CONFSIM_ERROR_WATCH_H

#include <map>
#include <optional>
#include <string>

namespace confsim {

class error_watch {
public:
    error_watch() = default;
    ~error_watch();
    error_watch(const error_watch &) = delete;
    error_watch &operator=(const error_watch &) = delete;

    // The library, wherever this program was installed or built; empty if there is none.
    [[nodiscard]] static std::string library();

    // Has the library loaded into all programs that are started from now on, in front of what is
    // loaded already. Called inside of the sandbox; without effect when it cannot be read there.
    void begin(const std::string &library);

    // The last error that a process recorded since it was asked about, in words.
    [[nodiscard]] std::optional<std::string> taken(const std::string &process);

private:
    void receive_all();

    int socket_ = -1;
    std::map<std::string, std::string> recorded_; // by process
};

} // namespace confsim

#endif
