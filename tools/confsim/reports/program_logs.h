// What programs write to the two logs of the library, which belong to the session alone inside of
// its sandbox: the system log, whose socket is made here, and the debug file.
#ifndef CONFSIM_PROGRAM_LOGS_H
#define CONFSIM_PROGRAM_LOGS_H

#include "commands/console.h"
#include "service/loop.h"

#include <deque>
#include <optional>
#include <string>

namespace confsim {

class program_logs {
public:
    // Opens the system log, before any program is started. Each line is printed as it comes when
    // `shows` is set. Throws failure.
    program_logs(event_loop &loop, const console &out, bool shows);
    ~program_logs();
    program_logs(const program_logs &) = delete;
    program_logs &operator=(const program_logs &) = delete;

    // Waits until there is a line that holds the text and was not taken before, and takes it. Of
    // very many lines the oldest are forgotten.
    [[nodiscard]] std::optional<std::string> take(const std::string &text, seconds patience);

private:
    void look_regularly();
    void receive();
    void read_debug_file();
    void add(const char *log, const std::string &line);
    [[nodiscard]] std::optional<std::string> find(const std::string &text);

    event_loop &loop_;
    const console &out_;
    bool shows_;
    int system_log_ = -1;
    int debug_file_ = -1;    // the one that is read; -1 before there is one
    std::string unfinished_; // line of the debug file
    std::optional<event_loop::timer> next_look_;
    std::deque<std::string> lines_;
    std::size_t size_ = 0; // of them
};

} // namespace confsim

#endif
