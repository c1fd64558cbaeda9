// See input.h.
#include "commands/input.h"

#include "failure.h"
#include "terminal/edited_input.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

class stream final : public input {
public:
    stream(event_loop &loop, int descriptor, std::string name)
        : loop_(loop), descriptor_(descriptor), name_(std::move(name))
    {
    }
    ~stream() override { close(descriptor_); }

    std::optional<std::string> next_line() override
    {
        std::size_t end = pending_.find('\n');
        while (end == std::string::npos && !ended_) {
            if (!loop_.wait_readable(descriptor_)) {
                return std::nullopt;
            }
            std::array<char, 4096> bytes{};
            const ssize_t count = read(descriptor_, bytes.data(), bytes.size());
            ended_ = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
            const std::size_t before = pending_.size();
            pending_.append(bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count));
            end = pending_.find('\n', before);
        }
        if (pending_.empty()) {
            return std::nullopt;
        }
        end = std::min(end, pending_.size());
        std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        ++number_;
        return line;
    }

    [[nodiscard]] bool is_script() const override { return true; }
    [[nodiscard]] std::string position() const override
    {
        return name_ + ":" + std::to_string(number_);
    }

private:
    event_loop &loop_;
    int descriptor_;
    std::string name_;
    std::string pending_;
    bool ended_ = false;
    int number_ = 0;
};

} // namespace

std::unique_ptr<input> standard_input(event_loop &loop, console &out, const completer &complete)
{
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
        return edited_input(loop, out, complete);
    }
    const int descriptor = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    if (descriptor < 0) {
        throw failure("cannot read standard input: " + std::generic_category().message(errno));
    }
    return std::make_unique<stream>(loop, descriptor, "stdin");
}

std::unique_ptr<input> script_input(event_loop &loop, const std::string &file)
{
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        throw failure("cannot open " + file + ": " + std::generic_category().message(errno));
    }
    return std::make_unique<stream>(loop, descriptor, file);
}

} // namespace confsim
