// See program_output.h.
#include "reports/program_output.h"

#include "failure.h"

#include <fcntl.h>
#include <unistd.h>

namespace confsim {

program_output::program_output()
{
    (void)std::fflush(stdout);
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    stream_.reset(kept < 0 ? nullptr : fdopen(kept, "w"));
    if (stream_ == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        throw failure("standard output cannot be used");
    }
}

void program_output::write(const std::string &text) const
{
    if (std::fwrite(text.data(), 1, text.size(), stream_.get()) != text.size() ||
        std::fflush(stream_.get()) != 0) {
        throw failure("cannot write all of the output");
    }
}

} // namespace confsim
