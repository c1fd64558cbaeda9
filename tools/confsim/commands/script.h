// The lines of a session in the order in which they are carried out: those of its input, with the
// files that it includes, the blocks that it repeats, and without what is left out of cases.
#ifndef CONFSIM_SCRIPT_H
#define CONFSIM_SCRIPT_H

#include "commands/input.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace confsim {

class script final : public input {
public:
    script(event_loop &loop, std::unique_ptr<input> first);

    // None also when a case has no end where it should.
    [[nodiscard]] std::optional<std::string> next_line() override;
    [[nodiscard]] bool is_script() const override { return sources_.front()->is_script(); }
    [[nodiscard]] std::string position() const override { return position_; }

    // The lines of the file come next. Its name is relative to the file that includes it. Throws
    // failure when it cannot be opened, and when files include each other without end.
    void include(const std::string &file);

    // Takes the lines up to the `end` that belongs to the last line; they come next, so many times.
    // Throws failure when there is no such `end`.
    void repeat(long count);

    // The last line begins, or ends, a case. Throw failure when there is one already, or none.
    void begin_case(const std::string &name);
    void end_case();

    // Goes to the `end` of the case, which comes next, past the block that the last line begins.
    void skip_case();

private:
    void check_depth() const;
    // The next line of the innermost source.
    [[nodiscard]] std::optional<std::string> take();

    event_loop &loop_;
    std::vector<std::unique_ptr<input>> sources_; // the last one is read
    std::string position_;
    std::string case_;
    std::size_t case_depth_ = 0; // the sources there were at its begin
    int last_opened_ = 0;        // blocks, by the last line
    int skipped_ = 0;            // blocks whose ends are to be skipped
};

} // namespace confsim

#endif
