// What a script expects of the last answer, of the configuration and of what plugins send. See
// commands.h.
#include "commands/commands.h"

#include "commands/words.h"
#include "failure.h"
#include "tree/xpath.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <array>
#include <memory>

namespace confsim {

namespace {

struct pcre_deleter {
    void operator()(pcre2_code *code) const { pcre2_code_free(code); }
    void operator()(pcre2_match_data *data) const { pcre2_match_data_free(data); }
};

std::string pcre_text(int error)
{
    std::array<PCRE2_UCHAR, 256> text{};
    (void)pcre2_get_error_message(error, text.data(), text.size());
    return reinterpret_cast<const char *>(text.data());
}

// Whether the pattern matches anywhere, ^ and $ at each line.
bool matches(const std::string &pattern, const std::string &text)
{
    int error = 0;
    PCRE2_SIZE offset = 0;
    const std::unique_ptr<pcre2_code, pcre_deleter> code(pcre2_compile(
        reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
        PCRE2_MULTILINE | PCRE2_UTF | PCRE2_MATCH_INVALID_UTF, &error, &offset, nullptr));
    if (code == nullptr) {
        throw failure("not a regular expression: " + pattern + ": " + pcre_text(error));
    }
    const std::unique_ptr<pcre2_match_data, pcre_deleter> data(
        pcre2_match_data_create_from_pattern(code.get(), nullptr));
    const int found = pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()),
                                  text.size(), 0, 0, data.get(), nullptr);
    if (found < 0 && found != PCRE2_ERROR_NOMATCH) {
        throw failure(pattern + ": " + pcre_text(found));
    }
    return found > 0;
}

bool fits(const xpath_result &found, const std::vector<std::string> &line, std::size_t value_at)
{
    return line.size() <= value_at ? found.holds
                                   : std::find(found.values.begin(), found.values.end(),
                                               line[value_at]) != found.values.end();
}

} // namespace

// Every answer holds the empty text.
std::string interpreter::expected_text(const words &line)
{
    std::string text = join_words(line, 1);
    if (text.empty()) {
        throw failure("there is no text to look for");
    }
    return text;
}

void interpreter::expect(const words &line)
{
    const std::string text = expected_text(line);
    if (answer_.find(text) == std::string::npos) {
        throw failure("expected \"" + text + "\" in the last answer, which was:\n" + answer_);
    }
}

void interpreter::expect_not(const words &line)
{
    const std::string text = expected_text(line);
    if (answer_.find(text) != std::string::npos) {
        throw failure("did not expect \"" + text + "\" in the last answer, which was:\n" + answer_);
    }
}

void interpreter::expect_match(const words &line)
{
    const std::string pattern = expected_text(line);
    if (!matches(pattern, answer_)) {
        throw failure("expected a match of " + pattern + " in the last answer, which was:\n" +
                      answer_);
    }
}

void interpreter::expect_xpath(const words &line)
{
    const std::string text = answer_nodes_ ? *answer_nodes_ : shown(here_.config.running());
    const xpath_result found = evaluate_xpath(text, line[1], here_.config.modules());
    report_->data = found.values;
    if (!fits(found, line, 2)) {
        throw failure("expected " + join_words(line, 1) + " in " +
                      (answer_nodes_ ? "the last answer" : "the running configuration") +
                      ", which was:\n" + text);
    }
    report_->text = found.values.empty() ? "" : found.values.front();
}

void interpreter::expect_message(const words &line)
{
    const bool has_only_time = line.size() == 4 && is_number(line[3]);
    const bool has_xpath = line.size() > 3 && !has_only_time;
    const seconds patience = patience_from(line, has_only_time ? 3 : 5);
    concern(line[1], "");
    unsigned long looked_at = 0;
    std::string seen;
    const auto is_wanted = [&](const std::string &text) {
        seen = text;
        return !has_xpath || fits(evaluate_xpath(text, line[3], here_.config.modules()), line, 4);
    };
    const auto has_arrived = [&] {
        return here_.service.messages().take(line[1], line[2], is_wanted, looked_at);
    };
    if (!here_.loop.run_until(has_arrived, after(patience))) {
        throw failure("plugin " + line[1] + " sent no " + join_words(line, 2) + " in time" +
                      (seen.empty() ? "" : "; the last " + line[2] + " was:\n" + shown_xml(seen)));
    }
    const std::string printed = shown_xml(seen);
    report_->data = printed;
    say(printed);
}

std::string interpreter::shown_xml(const std::string &text) const
{
    const xml::doc_ptr parsed = xml::parse_text(text, "message");
    return here_.out.shown(xmlDocGetRootElement(parsed.get()));
}

void interpreter::expect_within(const words &line)
{
    const seconds most = patience_from(line, 1);
    const words inner(line.begin() + 2, line.end());
    const command &known = look_inside(inner);
    const steady_clock::time_point begin = steady_clock::now();
    const seconds usual = std::exchange(here_.patience, most);
    try {
        (this->*known.carry_out)(inner);
    } catch (...) {
        here_.patience = usual;
        throw;
    }
    here_.patience = usual;
    const seconds taken = steady_clock::now() - begin;
    if (taken > most) {
        throw failure("it took " + std::to_string(taken.count()) + " s, more than " + line[1]);
    }
}

} // namespace confsim
