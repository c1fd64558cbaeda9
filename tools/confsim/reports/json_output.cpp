// See json_output.h.
#include "reports/json_output.h"

#include "failure.h"

#include <fcntl.h>
#include <unistd.h>

namespace confsim {

json_output::json_output()
{
    (void)std::fflush(stdout);
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    stream_.reset(kept < 0 ? nullptr : fdopen(kept, "w"));
    if (stream_ == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        throw failure("cannot use standard output for answers");
    }
}

void json_output::print(const command_answer &given) const
{
    const std::string line = to_json(given) + '\n';
    if (std::fwrite(line.data(), 1, line.size(), stream_.get()) != line.size() ||
        std::fflush(stream_.get()) != 0) {
        throw failure("cannot write all of the answers");
    }
}

} // namespace confsim
