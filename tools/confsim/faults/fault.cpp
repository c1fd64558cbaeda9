// See fault.h. A table has the arguments of each fault, a letter for one of them.
#include "faults/fault.h"

#include "commands/words.h"
#include "failure.h"
#include "faults/numbers.h"

#include <algorithm>
#include <vector>

namespace confsim {

namespace {

struct form {
    fault::kind what;
    const char *name;
    const char *arguments; // b a byte, s seconds, m a method, c a code, t the text to the end
    const char *usage;
};

constexpr form forms[] = {
    {fault::kind::drop, "drop", "", "drop"},
    {fault::kind::delay, "delay", "s", "delay SECONDS"},
    {fault::kind::duplicate, "duplicate", "", "duplicate"},
    {fault::kind::truncate, "truncate", "b", "truncate N"},
    {fault::kind::corrupt, "corrupt", "b", "corrupt N"},
    {fault::kind::split, "split", "b", "split N"},
    {fault::kind::disconnect_at, "disconnect-at", "b", "disconnect-at N"},
    {fault::kind::refuse, "refuse", "mct", "refuse METHOD CODE TEXT"},
    {fault::kind::silence, "silence", "m", "silence METHOD"},
    {fault::kind::late, "late", "ms", "late METHOD SECONDS"},
};

const form &form_of(fault::kind what)
{
    return *std::find_if(std::begin(forms), std::end(forms),
                         [what](const form &each) { return each.what == what; });
}

void read_argument(fault &made, char kind, const std::string &word)
{
    switch (kind) {
    case 'b':
        made.at = read_number<std::size_t>(word, 0, 1U << 30U);
        break;
    case 's':
        made.seconds = read_number<double>(word, 0, 86400);
        break;
    case 'm':
        made.method = word;
        break;
    default:
        made.code = read_number<int>(word, -1000000, 1000000);
        break;
    }
}

} // namespace

fault read_fault(std::span<const std::string> words)
{
    const auto *found = std::find_if(std::begin(forms), std::end(forms), [&](const form &each) {
        return !words.empty() && words.front() == each.name;
    });
    if (found == std::end(forms)) {
        std::string all;
        for (const std::string &each : known_faults()) {
            all += (all.empty() ? "" : ", ") + each;
        }
        throw failure("there is no such fault; known are: " + all);
    }
    const std::string arguments = found->arguments;
    const bool has_text = arguments.ends_with('t');
    const std::size_t fewest = arguments.size() + (has_text ? 0 : 1);
    if (words.size() < fewest || (!has_text && words.size() > fewest)) {
        throw failure(std::string("usage: fault PLUGIN|all [always] ") + found->usage);
    }
    fault made{.what = found->what};
    for (std::size_t i = 0; i < arguments.size() && arguments[i] != 't'; ++i) {
        read_argument(made, arguments[i], words[i + 1]);
    }
    if (has_text) {
        made.text = join_words({words.begin(), words.end()}, arguments.size());
    }
    return made;
}

std::string in_words(const fault &given)
{
    const form &known = form_of(given.what);
    std::string text = known.name;
    for (const char kind : std::string(known.arguments)) {
        switch (kind) {
        case 'b':
            text += ' ' + std::to_string(given.at);
            break;
        case 's':
            text += ' ' + number_text(given.seconds);
            break;
        case 'm':
            text += ' ' + given.method;
            break;
        case 'c':
            text += ' ' + std::to_string(given.code);
            break;
        default:
            text += given.text.empty() ? "" : ' ' + given.text;
            break;
        }
    }
    return text;
}

std::vector<std::string> known_faults()
{
    std::vector<std::string> all;
    for (const form &each : forms) {
        all.emplace_back(each.usage);
    }
    return all;
}

} // namespace confsim
