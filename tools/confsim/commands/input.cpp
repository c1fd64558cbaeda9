// See input.h.
#include "commands/input.h"

#include "failure.h"

#include <histedit.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

// Waits for one descriptor while the loop serves everything else. That may take longer than the
// wait, so what is there must wake the loop only once.
bool wait_readable(event_loop &loop, int descriptor)
{
    bool readable = false;
    loop.watch(descriptor, POLLIN, [&](short) {
        readable = true;
        loop.forget(descriptor);
    });
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
        std::size_t end = pending_.find('\n');
        while (end == std::string::npos && !ended_) {
            if (!wait_readable(loop_, descriptor_)) {
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

// The loop runs while libedit waits for a key; what is printed meanwhile goes above the line.
class terminal final : public input {
public:
    terminal(event_loop &loop, console &out)
        : loop_(loop), out_(out), editor_(el_init("confsim", stdin, stdout, stderr)),
          history_(history_init())
    {
        if (editor_ == nullptr || history_ == nullptr) {
            throw failure("the terminal cannot be used for editing");
        }
        if (std::setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1) {
            (void)std::setlocale(LC_CTYPE, "C.UTF-8"); // whatever is typed goes into XML
        }
        HistEvent event{};
        history(history_.get(), &event, H_SETSIZE, 1000);
        el_set(editor_.get(), EL_CLIENTDATA, this);
        el_set(editor_.get(), EL_GETCFN, read_key);
        el_set(editor_.get(), EL_PROMPT, prompt);
        el_set(editor_.get(), EL_EDITOR, "emacs");
        el_set(editor_.get(), EL_HIST, history, history_.get());
    }
    ~terminal() override { stop_editing(); }

    std::optional<std::string> next_line() override
    {
        out_.before = [] { std::fputs("\r\033[K", stdout); };
        out_.after = [this] { el_set(editor_.get(), EL_REFRESH); };
        int length = 0;
        const char *edited = el_gets(editor_.get(), &length);
        stop_editing();
        if (edited == nullptr || length <= 0) {
            out_.print(""); // leaves the line of the prompt
            return std::nullopt;
        }
        std::string line(edited, static_cast<std::size_t>(length));
        if (line.back() == '\n') {
            line.pop_back();
        }
        if (!line.empty()) {
            HistEvent event{};
            history(history_.get(), &event, H_ENTER, line.c_str());
        }
        return line;
    }

    [[nodiscard]] bool is_script() const override { return false; }
    [[nodiscard]] std::string position() const override { return "terminal"; }

private:
    struct deleter {
        void operator()(EditLine *editor) const { el_end(editor); }
        void operator()(History *lines) const { history_end(lines); }
    };

    void stop_editing()
    {
        out_.before = nullptr;
        out_.after = nullptr;
    }

    static char *prompt(EditLine * /*editor*/)
    {
        static char text[] = "confsim> ";
        return text;
    }

    // Called by libedit for the next key; 0 ends the input.
    static int read_key(EditLine *editor, wchar_t *key)
    {
        terminal *self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        std::mbstate_t state{};
        std::size_t length = incomplete;
        while (length == incomplete) {
            char byte = 0;
            if (!wait_readable(self->loop_, STDIN_FILENO) || read(STDIN_FILENO, &byte, 1) != 1) {
                return 0;
            }
            length = std::mbrtowc(key, &byte, 1, &state);
        }
        if (length == invalid) {
            *key = L'\uFFFD'; // the replacement character
        }
        return 1;
    }

    static constexpr std::size_t invalid = static_cast<std::size_t>(-1); // of mbrtowc(3)
    static constexpr std::size_t incomplete = static_cast<std::size_t>(-2);

    event_loop &loop_;
    console &out_;
    std::unique_ptr<EditLine, deleter> editor_;
    std::unique_ptr<History, deleter> history_;
};

} // namespace

std::unique_ptr<input> standard_input(event_loop &loop, console &out)
{
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
        return std::make_unique<terminal>(loop, out);
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
