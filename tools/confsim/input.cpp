// See input.h.
#include "input.h"

#include "failure.h"

#include <editline/readline.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

// Waits for one descriptor while the loop serves everything else.
bool wait_readable(event_loop &loop, int descriptor)
{
    bool readable = false;
    loop.watch(descriptor, POLLIN, [&readable](short) { readable = true; });
    const bool there = loop.run_until([&readable] { return readable; });
    loop.forget(descriptor);
    return there;
}

class stream final : public input {
public:
    stream(event_loop &loop, int descriptor, std::string name)
        : loop_(loop), descriptor_(descriptor), name_(std::move(name))
    {
    }
    ~stream() override { close(descriptor_); }

    std::optional<std::string> next_line() override
    {
        while (pending_.find('\n') == std::string::npos && !ended_) {
            if (!wait_readable(loop_, descriptor_)) {
                return std::nullopt;
            }
            std::array<char, 4096> bytes{};
            const ssize_t count = read(descriptor_, bytes.data(), bytes.size());
            ended_ = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
            pending_.append(bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count));
        }
        if (pending_.empty()) {
            return std::nullopt;
        }
        const std::size_t end = std::min(pending_.find('\n'), pending_.size());
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

// There is one terminal, and libedit keeps its state in globals as well.
class terminal final : public input {
public:
    terminal(event_loop &loop, console &out) : loop_(loop), out_(out)
    {
        rl_callback_handler_install("confsim> ", take_line);
        using_history();
        out_.before = [] {
            if (is_editing) {
                std::fputs("\r\033[K", stdout);
            }
        };
        out_.after = [] {
            if (is_editing) {
                rl_forced_update_display();
            }
        };
    }
    ~terminal() override
    {
        is_editing = false;
        rl_callback_handler_remove();
        out_.before = nullptr;
        out_.after = nullptr;
    }

    std::optional<std::string> next_line() override
    {
        line.reset();
        has_ended = false;
        is_editing = true;
        rl_forced_update_display();
        while (!line && !has_ended && wait_readable(loop_, STDIN_FILENO)) {
            rl_callback_read_char();
        }
        is_editing = false;
        return line;
    }

    [[nodiscard]] bool is_script() const override { return false; }
    [[nodiscard]] std::string position() const override { return "terminal"; }

private:
    static void take_line(char *edited)
    {
        if (edited == nullptr) {
            has_ended = true;
            return;
        }
        line = edited;
        if (!line->empty()) {
            add_history(edited);
        }
        std::free(edited);
    }

    inline static std::optional<std::string> line;
    inline static bool has_ended = false;
    inline static bool is_editing = false;

    event_loop &loop_;
    console &out_;
};

} // namespace

std::unique_ptr<input> standard_input(event_loop &loop, console &out)
{
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
        return std::make_unique<terminal>(loop, out);
    }
    return std::make_unique<stream>(loop, fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "stdin");
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
