// See commands.h. Each command finds its words counted; what goes wrong it throws as failure.
#include "commands/commands.h"

#include "commands/words.h"
#include "failure.h"
#include "service/refusal.h"

#include <algorithm>
#include <cstdlib>
#include <set>

namespace confsim {

namespace {

void add_line(std::string &to, const std::string &text)
{
    to += to.empty() ? "" : "\n";
    to += text;
}

constexpr std::size_t any_number = 1000000;

} // namespace

const interpreter::command interpreter::table[] = {
    {"plugins", "", "the plugins and what they subscribed to", 0, 0, &interpreter::plugins},
    {"load", "FILE", "take the candidate from an XML file, or from FILE.json (--yang)", 1, 1,
     &interpreter::load},
    {"set", "PATH [VALUE]", "make a node of the candidate, or change a leaf", 1, 2,
     &interpreter::set},
    {"delete", "PATH", "remove nodes from the candidate", 1, 1, &interpreter::remove},
    {"show", "[--json] [running|old|candidate|deployment|published] [PATH]",
     "a configuration, or what plugins published", 0, 3, &interpreter::show},
    {"move", "PATH before|after|first|last [PATH]",
     "move an entry of a list that users order (--yang)", 2, 3, &interpreter::move},
    {"validate", "", "whether the model allows the candidate (--yang)", 0, 0,
     &interpreter::validate},
    {"model", "[PATH]", "what the model has below a path (--yang)", 0, 1, &interpreter::model},
    {"diff", "", "what the candidate changes", 0, 0, &interpreter::diff},
    {"commit", "", "put the candidate in force", 0, 0, &interpreter::commit},
    {"discard", "", "make the candidate equal to the running configuration", 0, 0,
     &interpreter::discard},
    {"status", "PATH [FILTER]", "ask a plugin for status data", 1, 2, &interpreter::status},
    {"call", "OPERATION [XML|@FILE]", "call an operation of a plugin", 1, any_number,
     &interpreter::call},
    {"kickoff", "[PLUGIN]", "kick off one plugin, or all", 0, 1, &interpreter::kickoff},
    {"wait", "PLUGIN [SECONDS]", "until the plugin is activated", 1, 2, &interpreter::wait},
    {"wait-notification", "[SECONDS]", "until a notification arrives that was not shown yet", 0, 1,
     &interpreter::wait_notification},
    {"notifications", "", "the notifications received so far", 0, 0, &interpreter::notifications},
    {"expect", "TEXT", "fail unless the last answer holds TEXT", 1, any_number,
     &interpreter::expect},
    {"expect-not", "TEXT", "fail if the last answer holds TEXT", 1, any_number,
     &interpreter::expect_not},
    {"expect-match", "REGEX", "fail unless the last answer matches a regular expression", 1,
     any_number, &interpreter::expect_match},
    {"expect-xpath", "XPATH [VALUE]",
     "fail unless the last answer, or the running configuration, has such nodes", 1, 2,
     &interpreter::expect_xpath},
    {"expect-message", "PLUGIN METHOD [XPATH [VALUE]] [SECONDS]",
     "until the plugin has sent a message that was not expected before", 2, 5,
     &interpreter::expect_message},
    {"expect-log", "TEXT",
     "until a program has logged a line with TEXT that was not expected before", 1, any_number,
     &interpreter::expect_log},
    {"expect-within", "SECONDS COMMAND...",
     "carry the command out and fail if that takes longer, or fails", 2, any_number,
     &interpreter::expect_within},
    {"expect-exit", "[STATUS] [SECONDS]",
     "until the program that runs ends as expected: status 0, another one, or a signal's name", 0,
     2, &interpreter::expect_exit},
    {"start", "NAME -- COMMAND...", "start another program beside the one that runs", 3, any_number,
     &interpreter::start},
    {"signal", "PROGRAM SIGNAL", "send a signal to a program", 2, 2, &interpreter::signal},
    {"wait-exit", "PROGRAM [STATUS] [SECONDS]", "until that program ends, as expect-exit", 1, 3,
     &interpreter::wait_exit},
    {"fail", "COMMAND...", "carry the command out and fail unless it does", 1, any_number,
     &interpreter::expect_failure},
    {"try", "COMMAND...", "carry the command out and go on when it fails", 1, any_number,
     &interpreter::attempt},
    {"case", "NAME", "begin a case: a command that fails ends it, and the script goes on behind it",
     1, any_number, &interpreter::begin_case},
    {"repeat", "N", "carry the lines up to `end` out N times", 1, 1, &interpreter::repeat},
    {"end", "", "end a case, or what is repeated", 0, 0, &interpreter::end_case},
    {"include", "FILE", "carry out the lines of a file", 1, 1, &interpreter::include},
    {"sleep", "SECONDS", "let time pass", 1, 1, &interpreter::sleep},
    {"echo", "TEXT", "print a text", 0, any_number, &interpreter::echo},
    {"trace", "on|off", "print the frames in both directions, secrets masked", 1, 1,
     &interpreter::trace},
    {"fault", "PLUGIN|all [always] FAULT... | [PLUGIN] off",
     "something goes wrong with the next frame that is sent, or the next request", 1, any_number,
     &interpreter::order_fault},
    {"chaos", "SEED RATE | off",
     "faults are drawn for RATE percent of frames, requests and commands", 1, 2,
     &interpreter::draw_faults},
    {"faults", "", "the faults that are still to come, and those that happened", 0, 0,
     &interpreter::faults},
    {"stop", "SECONDS", "hang, and stay connected", 1, 1, &interpreter::stop},
    {"restart", "[SECONDS]", "the sockets vanish and come back, the configuration stays", 0, 1,
     &interpreter::restart},
    {"kill", "PLUGIN", "hang up on a plugin without a word", 1, 1, &interpreter::hang_up},
    {"full", "[on|off]", "the queue for notifications is full", 0, 1, &interpreter::fill_notifier},
    {"unreadable-profile", "[on|off]", "plugins cannot read where the sockets are", 0, 1,
     &interpreter::spoil_profile},
    {"help", "", "this list; on a terminal, Tab completes what is typed", 0, 0, &interpreter::help},
    {"quit", "", "end confsim", 0, 0, &interpreter::quit},
};

bool interpreter::run(const std::string &line, script *from)
{
    const steady_clock::time_point begin = steady_clock::now();
    is_busy_ = true;
    script_ = from;
    report_.emplace();
    try {
        words split = split_words(line);
        if (split.empty()) {
            report_.reset();
        } else {
            expand(split, here_.known);
            carry_out(split);
        }
    } catch (const failure &reason) {
        error_ = reason.what();
        say("error: " + error_, tone::error);
        report_->ok = false;
        report_->text = here_.out.shown(note(reason));
    }
    is_busy_ = false;
    if (report_) {
        report_->duration = steady_clock::now() - begin;
    }
    return !report_ || report_->ok;
}

void interpreter::carry_out(const words &line)
{
    keeps_answer_ = keeps_answer(line);
    if (!keeps_answer_) {
        answer_.clear();
        answer_nodes_.reset();
    }
    const command &known = look_up(line);
    let_go_wrong(line);
    (this->*known.carry_out)(line);
    if (!keeps_answer_) {
        keep_nodes();
    }
}

// The nodes that the last answer holds are its data, or all of them.
void interpreter::keep_nodes()
{
    const json_value &data = report_->data;
    const bool is_list = data.is_array() && !data.empty() && data.front().is_string();
    if (data.is_string()) {
        answer_nodes_ = data.get<std::string>();
    } else if (is_list) {
        answer_nodes_ = join_words(data.get<words>(), 0);
    }
}

std::vector<usage> interpreter::usages()
{
    std::vector<usage> all;
    for (const command &each : table) {
        all.push_back({each.name, each.arguments});
    }
    return all;
}

const interpreter::command &interpreter::look_up(const words &line)
{
    const auto *found =
        std::find_if(std::begin(table), std::end(table),
                     [&line](const command &each) { return line.front() == each.name; });
    if (found == std::end(table)) {
        throw failure("there is no command " + line.front() + "; try help");
    }
    if (line.size() - 1 < found->fewest || line.size() - 1 > found->most) {
        throw failure(std::string("usage: ") + found->name + " " + found->arguments);
    }
    return *found;
}

// Whether `expect` behind a command still looks at the answer before it.
bool interpreter::keeps_answer(const words &line)
{
    static const std::set<std::string> keeping = {
        "expect", "expect-not", "expect-match", "expect-xpath", "expect-log", "sleep", "echo",
        "trace",  "case",       "repeat",       "end",          "include",    "start", "signal"};
    auto first = line.begin();
    while (first != line.end() && (*first == "fail" || *first == "try")) {
        ++first;
    }
    if (line.end() - first > 2 && *first == "expect-within") {
        return keeps_answer(words(first + 2, line.end()));
    }
    return first != line.end() && keeping.contains(*first);
}

// A command inside of another: a mistyped one is no failure to expect, and the structure of the
// script does not depend on one.
const interpreter::command &interpreter::look_inside(const words &line)
{
    static const std::set<std::string> structure = {"case", "repeat", "end", "include"};
    const command &known = look_up(line);
    if (structure.contains(known.name)) {
        throw failure(std::string(known.name) + " cannot stand inside of another command");
    }
    return known;
}

// Prints a part of the answer at once.
void interpreter::say(std::string text, tone meant)
{
    here_.out.print(text, meant);
    text = here_.out.shown(std::move(text));
    add_line(report_->text, text);
    if (!keeps_answer_) {
        add_line(answer_, text);
    }
}

// What the command is about.
void interpreter::concern(const std::string &plugin, const std::string &where)
{
    report_->plugin = plugin;
    report_->path = where;
}

// Notes who refused what. Returns the plugin's own words, or those of the failure.
std::string interpreter::note(const failure &reason)
{
    const auto *refused = dynamic_cast<const refusal *>(&reason);
    if (refused == nullptr) {
        return reason.what();
    }
    concern(refused->told().plugin, refused->told().where);
    report_->code = refused->told().code;
    return refused->told().message;
}

bool interpreter::is_number(const std::string &word)
{
    char *end = nullptr;
    (void)std::strtod(word.c_str(), &end);
    return !word.empty() && *end == '\0';
}

seconds interpreter::patience_from(const words &line, std::size_t position) const
{
    if (line.size() <= position) {
        return here_.patience;
    }
    const double given = std::strtod(line[position].c_str(), nullptr);
    if (!is_number(line[position]) || !(given >= 0 && given <= 86400)) {
        throw failure("not a number of seconds: " + line[position]);
    }
    return seconds(given);
}

void interpreter::expect_failure(const words &line)
{
    const words inner(line.begin() + 1, line.end());
    const command &known = look_inside(inner);
    try {
        (this->*known.carry_out)(inner);
    } catch (const failure &reason) {
        say(std::string("failed as expected: ") + reason.what());
        (void)note(reason);
        return;
    }
    throw failure("expected the command to fail: " + join_words(line, 1));
}

void interpreter::attempt(const words &line)
{
    const words inner(line.begin() + 1, line.end());
    const command &known = look_inside(inner);
    try {
        (this->*known.carry_out)(inner);
    } catch (const failure &reason) {
        say(std::string("failed: ") + reason.what());
        (void)note(reason);
    }
}

void interpreter::sleep(const words &line)
{
    const auto never = [] { return false; };
    (void)here_.loop.run_until(never, after(patience_from(line, 1)));
}

void interpreter::echo(const words &line)
{
    here_.out.print(join_words(line, 1));
}

void interpreter::trace(const words &line)
{
    if (line[1] != "on" && line[1] != "off") {
        throw failure("usage: trace on|off");
    }
    here_.trace.enable(line[1] == "on");
}

void interpreter::help(const words & /*line*/)
{
    report_->data = json_value::array();
    for (const command &each : table) {
        report_->data.push_back(
            {{"name", each.name}, {"arguments", each.arguments}, {"help", each.help}});
        std::string usage = std::string(each.name) + " " + each.arguments;
        usage.resize(std::max<std::size_t>(usage.size() + 1, 32), ' ');
        say(usage + each.help);
    }
}

void interpreter::quit(const words & /*line*/)
{
    has_quit_ = true;
}

} // namespace confsim
