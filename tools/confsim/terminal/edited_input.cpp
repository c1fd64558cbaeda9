// See edited_input.h. libedit does the editing. The loop runs while it waits for a key; what is
// printed meanwhile goes above the line.
#include "terminal/edited_input.h"

#include "failure.h"
#include "terminal/completion.h"
#include "terminal/history_file.h"

#include <histedit.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <sys/ioctl.h>
#include <unistd.h>

namespace confsim {

namespace {

constexpr std::size_t invalid = static_cast<std::size_t>(-1); // of mbrtowc(3)
constexpr std::size_t incomplete = static_cast<std::size_t>(-2);

// How many characters the terminal, and libedit, take a text for.
std::size_t characters(const std::string &text)
{
    std::mbstate_t state{};
    const char *at = text.c_str();
    const std::size_t count = std::mbsrtowcs(nullptr, &at, 0, &state);
    return count == invalid ? text.size() : count;
}

std::size_t terminal_width()
{
    constexpr std::size_t usual = 80;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

// In columns, read downwards as those of ls(1) are.
std::string in_columns(const std::vector<std::string> &all)
{
    std::size_t widest = 0;
    for (const std::string &each : all) {
        widest = std::max(widest, characters(each) + 2);
    }
    const std::size_t columns = std::max<std::size_t>(terminal_width() / widest, 1);
    const std::size_t rows = (all.size() + columns - 1) / columns;
    std::string text;
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t i = row; i < all.size(); i += rows) {
            text += all[i];
            text += i + rows < all.size() ? std::string(widest - characters(all[i]), ' ') : "\n";
        }
    }
    return text;
}

class terminal final : public input {
public:
    terminal(event_loop &loop, console &out, completer complete)
        : loop_(loop), out_(out), complete_(std::move(complete)),
          editor_(el_init("confsim", stdin, stdout, stderr)), history_(history_init()),
          kept_(usual_history())
    {
        if (editor_ == nullptr || history_ == nullptr) {
            throw failure("the terminal cannot be used for editing");
        }
        if (std::setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1) {
            (void)std::setlocale(LC_CTYPE, "C.UTF-8"); // whatever is typed goes into XML
        }
        HistEvent event{};
        history(history_.get(), &event, H_SETSIZE, static_cast<int>(history_file::most_lines));
        history(history_.get(), &event, H_SETUNIQUE, 1);
        for (const std::string &each : kept_.lines()) {
            history(history_.get(), &event, H_ENTER, each.c_str());
        }
        el_set(editor_.get(), EL_CLIENTDATA, this);
        el_set(editor_.get(), EL_GETCFN, read_key);
        el_set(editor_.get(), EL_PROMPT, prompt);
        el_set(editor_.get(), EL_EDITOR, "emacs");
        el_set(editor_.get(), EL_HIST, history, history_.get());
        // The wide form keeps the texts as they are; the other one never frees its copies.
        el_wset(editor_.get(), EL_ADDFN, L"confsim-complete", L"Complete the word", complete_word);
        el_set(editor_.get(), EL_BIND, "^I", "confsim-complete", nullptr);
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
            kept_.add(line);
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

    static terminal &owner_of(EditLine *editor)
    {
        terminal *self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        return *self;
    }

    // Called by libedit for the next key; 0 ends the input.
    static int read_key(EditLine *editor, wchar_t *key)
    {
        event_loop &loop = owner_of(editor).loop_;
        std::mbstate_t state{};
        std::size_t length = incomplete;
        while (length == incomplete) {
            char byte = 0;
            if (!loop.wait_readable(STDIN_FILENO) || read(STDIN_FILENO, &byte, 1) != 1) {
                return 0;
            }
            length = std::mbrtowc(key, &byte, 1, &state);
        }
        if (length == invalid) {
            *key = L'\uFFFD'; // the replacement character
        }
        return 1;
    }

    // Called for the key that completes: goes as far as that is certain, else shows what there is.
    static unsigned char complete_word(EditLine *editor, int /*key*/)
    {
        const LineInfo *typed = el_line(editor);
        const std::string line(typed->buffer, typed->cursor);
        const terminal &self = owner_of(editor);
        const completion found = self.complete_(line);
        const std::string word = line.substr(found.begin);
        if (found.replacement != word) {
            el_deletestr(editor, static_cast<int>(characters(word)));
            return el_insertstr(editor, found.replacement.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        }
        if (found.candidates.empty()) {
            return CC_REFRESH_BEEP;
        }
        std::fputs(("\n" + self.out_.shown(in_columns(found.candidates)) +
                    (found.has_more ? "... and more\n" : ""))
                       .c_str(),
                   stdout);
        return CC_REDISPLAY;
    }

    event_loop &loop_;
    console &out_;
    completer complete_;
    std::unique_ptr<EditLine, deleter> editor_;
    std::unique_ptr<History, deleter> history_;
    history_file kept_;
};

} // namespace

std::unique_ptr<input> edited_input(event_loop &loop, console &out, completer complete)
{
    return std::make_unique<terminal>(loop, out, std::move(complete));
}

} // namespace confsim
