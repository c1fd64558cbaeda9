// The cases of a session and what became of them.
//
// What stands outside of each case belongs to the session, which is a case of its own when there is
// no other, or when something failed there.
#ifndef CONFSIM_CASES_H
#define CONFSIM_CASES_H

#include "service/loop.h"

#include <string>
#include <vector>

namespace confsim {

struct case_outcome {
    std::string name;
    seconds duration{};
    std::string position; // of the line that failed first, FILE:LINE
    std::string error;    // empty when all went well
    std::vector<std::string> findings{};
    std::string log{}; // what happened; the newest part of a very long one
};

class case_list {
public:
    explicit case_list(const std::string &session) : session_{session, {}, "", ""} {}

    void begin(const std::string &name);
    void end();

    // The case that goes on, or the session, has failed.
    void fail(const std::string &position, const std::string &error);

    // Notes what was found in it, whether or not it fails by that.
    void note(const std::string &finding) { current().findings.push_back(finding); }

    // Adds a text to the log of the case that goes on, or of the session.
    void record(const std::string &text);

    // Ends the session.
    void close();

    [[nodiscard]] bool goes_on() const { return goes_on_; }
    [[nodiscard]] const std::vector<case_outcome> &outcomes() const { return outcomes_; }
    // How many of them have failed, the session included.
    [[nodiscard]] std::size_t failures() const { return failures_; }

private:
    case_outcome &current() { return goes_on_ ? outcomes_.back() : session_; }

    case_outcome session_;
    steady_clock::time_point session_begin_ = steady_clock::now();
    std::vector<case_outcome> outcomes_;
    steady_clock::time_point case_begin_;
    bool goes_on_ = false; // a case, the last one
    std::size_t failures_ = 0;
};

} // namespace confsim

#endif
