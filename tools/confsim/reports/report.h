// What became of the cases of a session, in the forms that test systems read: JUnit's XML, and TAP.
#ifndef CONFSIM_REPORT_H
#define CONFSIM_REPORT_H

#include "reports/cases.h"
#include "reports/program_output.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace confsim {

// `session` names the whole.
[[nodiscard]] std::string as_junit(const case_list &cases, const std::string &session);
[[nodiscard]] std::string as_tap(const case_list &cases);

// A report that was asked for: junit:FILE, tap:FILE or tap:-.
class report {
public:
    // Opens the file, which may be out of sight later, or takes standard output for it. Throws
    // failure.
    explicit report(const std::string &wanted);

    // Throws failure when it cannot be written.
    void write(const case_list &cases, const std::string &session) const;

private:
    struct closer {
        void operator()(std::FILE *file) const { (void)std::fclose(file); }
    };

    std::string form_;
    std::string file_;
    std::unique_ptr<std::FILE, closer> stream_;
    std::optional<program_output> standard_output_;
};

} // namespace confsim

#endif
