// See completion.h.
#include "terminal/completion.h"

#include "commands/words.h"
#include "failure.h"
#include "model/resolve.h"
#include "terminal/path_candidates.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

namespace confsim {

namespace {

namespace fs = std::filesystem;
using words = std::span<const std::string>;

path_sources sources_for(words command, const configuration &config)
{
    const schema_node *model = config.top_place();
    if (command.front() == "set") {
        return {&config.candidate(), model, true, false};
    }
    if (command.front() == "model" || command.front() == "status") {
        return {nullptr, model, true, true};
    }
    if (command.front() != "show") {
        return {&config.candidate(), model, false, false};
    }
    const node *shown = &config.running();
    for (const std::string &each : command.subspan(1)) {
        shown = config.named(each) == nullptr ? shown : config.named(each);
    }
    return {shown, model, false, false};
}

void add_all(candidates &to, const std::vector<std::string> &all)
{
    for (const std::string &each : all) {
        to.add_fitting(each);
    }
}

void add_paths_of(words command, candidates &to, const surroundings &here)
{
    add_paths(to, sources_for(command, here.config));
    if (command.front() == "status") {
        for (const std::string &each : here.statuses) {
            if (each.starts_with(to.typed())) {
                to.add(each, false);
            }
        }
    }
}

// Values that can be counted, of the leaf that the word before leads to.
void add_values(words command, candidates &to, const surroundings &here)
{
    const schema_node *leaf = nullptr;
    try {
        const path where = here.config.as_modelled(parse_path(command.back()));
        leaf = place_of(here.config.top_place(), where);
    } catch (const failure &) {
        return; // the command will fail, too
    }
    if (leaf == nullptr) {
        return;
    }
    for (const std::string &each : leaf->values) {
        if (each.substr(each.find(':') + 1).starts_with(to.typed()) ||
            each.starts_with(to.typed())) {
            to.add(each, true);
        }
    }
}

// Names of files, behind a prefix that belongs to none.
void add_files(candidates &to, const std::string &prefix)
{
    if (!to.typed().starts_with(prefix)) {
        return;
    }
    const std::string typed = to.typed().substr(prefix.size());
    const std::string directory = typed.substr(0, typed.rfind('/') + 1); // npos + 1 is 0
    std::error_code error;
    fs::directory_iterator each(directory.empty() ? "." : directory, error);
    for (; !error && each != fs::directory_iterator(); each.increment(error)) {
        const std::string name = each->path().filename();
        const bool is_wanted = name.starts_with(typed.substr(directory.size())) &&
                               (name.front() != '.' || typed.size() > directory.size());
        if (is_wanted) {
            std::error_code unknown;
            const bool is_directory = each->is_directory(unknown);
            std::string word = prefix;
            word.append(directory).append(name).append(is_directory ? "/" : "");
            to.add(word, !is_directory, prefix.size() + directory.size());
        }
    }
}

void add_signals(candidates &to)
{
    for (int each = 1; each < SIGRTMIN; ++each) {
        if (const char *name = sigabbrev_np(each)) {
            to.add_fitting(name);
        }
    }
}

// What a word in capitals stands for.
void add_kind(const std::string &kind, words command, candidates &to, const surroundings &here)
{
    if (kind == "PATH") {
        add_paths_of(command, to, here);
    } else if (kind == "VALUE" && command.front() == "set") {
        add_values(command, to, here);
    } else if (kind == "FILE") {
        add_files(to, "");
    } else if (kind == "@FILE") {
        add_files(to, "@");
    } else if (kind == "SIGNAL") {
        add_signals(to);
    } else if (kind == "PLUGIN") {
        add_all(to, here.plugins);
    } else if (kind == "OPERATION") {
        add_all(to, here.operations);
    } else if (kind == "PROGRAM") {
        add_all(to, here.programs);
    }
}

std::string with_dollars(const std::string &text, const variables &known)
{
    std::string doubled;
    for (const char c : text) {
        doubled += c == '$' && !known.empty() ? "$$" : std::string(1, c);
    }
    return doubled;
}

} // namespace

completion complete(const std::string &line, const surroundings &here)
{
    const typed_words typed = split_typed(line);
    completion made{typed.begin, line.substr(typed.begin)};
    if (typed.is_comment) {
        return made;
    }
    std::vector<std::string> before = typed.before;
    before.push_back(typed.last);
    try {
        expand(before, here.known);
    } catch (const failure &) {
        return made; // a variable without a value, or one that is still being typed
    }
    candidates found(before.back());
    before.pop_back();
    const expected_words next = expected_behind(before, here.words);
    for (const std::string &each : next.choices) {
        if (!is_placeholder(each)) {
            found.add_fitting(each);
        } else if (!next.command.empty()) {
            add_kind(each, next.command, found, here);
        }
    }
    made.candidates.assign(found.shown().begin(), found.shown().end());
    made.has_more = found.has_more();
    if (!made.candidates.empty() && (found.is_whole() || found.common() != found.typed())) {
        made.replacement = typed_as(with_dollars(found.common(), here.known), found.is_whole()) +
                           (found.is_whole() ? " " : "");
    }
    return made;
}

} // namespace confsim
