// A file that gets every frame of a session: .jsonl, an object of JSON in each line, or .pcapng,
// for Wireshark. docs/json.md has the fields of the former.
//
// Each frame is written at once and whole, so that the file can be read at any time, and after
// whatever end.
#ifndef CONFSIM_TRACE_FILE_H
#define CONFSIM_TRACE_FILE_H

#include "trace/traced_frame.h"

#include <string>

namespace confsim {

class trace_file {
public:
    // Why there can be no such file by its ending, or nothing.
    [[nodiscard]] static std::string wrong_ending(const std::string &name);

    // Makes it anew, for its owner only. Throws failure.
    explicit trace_file(const std::string &name);
    ~trace_file();
    trace_file(const trace_file &) = delete;
    trace_file &operator=(const trace_file &) = delete;

    // Both return what has gone wrong, if so, once. Then the file ends with the last whole frame.
    [[nodiscard]] std::string write(const traced_frame &frame);
    [[nodiscard]] std::string finish();

private:
    [[nodiscard]] std::string append(const std::string &record);

    std::string name_;
    bool is_pcapng_;
    int descriptor_ = -1; // -1 when it is finished
    off_t size_ = 0;      // of what is whole
    unsigned long frames_ = 0;
};

} // namespace confsim

#endif
