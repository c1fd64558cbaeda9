// confsim: plays the configuration daemon for plugins under development. See docs/confsim.md.
#include "commands/commands.h"
#include "commands/console.h"
#include "commands/control.h"
#include "commands/conversation.h"
#include "commands/input.h"
#include "commands/programs.h"
#include "descriptor_limit.h"
#include "doctor/doctor.h"
#include "failure.h"
#include "help_page.h"
#include "model/model.h"
#include "process_space.h"
#include "reports/findings.h"
#include "reports/program_logs.h"
#include "reports/program_output.h"
#include "reports/report.h"
#include "sandbox.h"
#include "service/daemon.h"
#include "service/endpoints.h"
#include "service/loop.h"
#include "store/configuration.h"
#include "terminal/colour.h"
#include "trace/trace.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <list>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace confsim;

constexpr int failed = 1;
constexpr int wrong_usage = 2;

struct settings {
    std::string directory;
    std::string config;
    std::string store;
    std::string script;
    std::string control;
    model_sources model;
    std::vector<std::string> reports;
    std::vector<std::string> traces;
    variables known;
    std::vector<std::string> command; // of run
    std::optional<double> slow;
    std::size_t most_plugins = conf_daemon::usual_plugins;
    double timeout = 5;
    bool json = false;
    bool strict = false;
    bool trace = false;
    bool mask = false;
    bool network = false;
    bool ignore_exit = false;
    bool log = false;
};

void add_common_options(CLI::App &app, settings &wanted)
{
    app.add_option("--dir", wanted.directory, "Directory of the sockets");
    app.add_option("--config", wanted.config, "XML file of the running configuration")
        ->check(CLI::ExistingFile);
    app.add_option("--store", wanted.store, "Directory that keeps the configurations");
    app.add_option("--script", wanted.script, "File with commands; without, standard input")
        ->check(CLI::ExistingFile);
    app.add_flag(
        "--json", wanted.json,
        "Standard output is a line of JSON for each answer; all else goes to standard error");
    app.add_option("--control", wanted.control, "Socket that takes commands, too");
    app.add_option("--yang", wanted.model.modules, "YANG module of the data, or directory of them")
        ->check(CLI::ExistingPath)
        ->expected(1)
        ->take_all();
    app.add_option("--yang-path", wanted.model.directories, "Directory of modules that they import")
        ->check(CLI::ExistingDirectory)
        ->expected(1)
        ->take_all();
    app.add_option("--feature", wanted.model.features, "MODULE:NAME of a feature that is there")
        ->expected(1)
        ->take_all();
    app.add_flag("--strict", wanted.strict, "What a plugin does wrong is an error");
    app.add_option("--report", wanted.reports,
                   "Write what became of the cases: junit:FILE, tap:FILE or tap:-")
        ->allow_extra_args(false);
    app.add_option_function<std::vector<std::string>>(
           "-D,--define",
           [&wanted](const std::vector<std::string> &given) {
               for (const std::string &each : given) {
                   define(wanted.known, each);
               }
           },
           "NAME=VALUE: what $NAME stands for in commands")
        ->allow_extra_args(false);
    app.add_option("--slow", wanted.slow, "An answer that takes more SECONDS is a finding");
    app.add_flag("--trace", wanted.trace, "Print every frame, secrets masked");
    app.add_option("--trace-file", wanted.traces,
                   "Write every frame, secrets masked: FILE.jsonl, or FILE.pcapng for Wireshark")
        ->allow_extra_args(false)
        ->check([](const std::string &given) { return trace_file::wrong_ending(given); });
    app.add_flag("--mask", wanted.mask, "Mask secrets in all else that is printed, too");
    app.add_option("--most-plugins", wanted.most_plugins, "How many plugins are accepted")
        ->check(CLI::Range(1, 1000000));
    app.add_option("--timeout", wanted.timeout, "Seconds that a plugin may take for an answer")
        ->check(CLI::Range(0.001, 86400.0))
        ->check([](const std::string &given) {
            return std::isnan(std::stod(given)) ? "not a number: " + given : ""; // is in any range
        });
}

// Moves into private namespaces, and keeps in sight there whatever the command line names.
// What hears of recorded errors, unless an emulator would hand it on to a program of another
// machine.
std::string watch_for(const std::string &program)
{
    const bool is_emulator =
        std::filesystem::path(program).filename().string().starts_with("qemu-");
    return is_emulator ? "" : error_watch::library();
}

void enter_sandbox(settings &wanted, const std::string &watch)
{
    struct stat outside {};
    if (!wanted.store.empty()) {
        (void)mkdir(wanted.store.c_str(), 0700); // or it would be made in what covers its place
        (void)stat(wanted.store.c_str(), &outside);
    }
    sandbox::options options;
    options.network = wanted.network;
    options.keep = wanted.command;
    if (!watch.empty()) {
        options.keep.push_back(watch);
    }
    for (const std::string &file : {wanted.config, wanted.store, wanted.script, wanted.directory}) {
        if (!file.empty()) {
            options.keep.push_back(file);
        }
    }
    for (const auto *all : {&wanted.model.modules, &wanted.model.directories}) {
        options.keep.insert(options.keep.end(), all->begin(), all->end());
    }
    std::string error;
    if (!sandbox::enter(options, error)) {
        throw failure("no sandbox: " + error);
    }
    struct stat inside {};
    if (!wanted.store.empty() && stat(wanted.store.c_str(), &inside) == 0 &&
        (inside.st_dev != outside.st_dev || inside.st_ino != outside.st_ino)) {
        throw failure("run covers " + wanted.store + ", so nothing would be kept there");
    }
    if (wanted.directory.empty()) {
        wanted.directory = "/var/tmp"; // empty in there, and gone with the last process
    }
}

// Turns the usual signals into an orderly end.
class signal_watch {
public:
    explicit signal_watch(event_loop &loop) : loop_(loop)
    {
        (void)std::signal(SIGCHLD, SIG_DFL); // ignored, it would take the exit status of COMMAND
        for (const int each : {SIGPIPE, SIGXFSZ}) { // the failed write says it, too
            (void)std::signal(each, SIG_IGN);
        }
        sigset_t ending;
        sigemptyset(&ending);
        for (const int each : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&ending, each);
        }
        sigprocmask(SIG_BLOCK, &ending, nullptr);
        descriptor_ = signalfd(-1, &ending, SFD_CLOEXEC);
        loop_.watch(descriptor_, POLLIN, [this](short) {
            signalfd_siginfo taken{}; // what is left would interrupt the end as well
            (void)!read(descriptor_, &taken, sizeof taken);
            loop_.interrupt();
        });
    }
    ~signal_watch()
    {
        loop_.forget(descriptor_);
        close(descriptor_);
    }
    signal_watch(const signal_watch &) = delete;
    signal_watch &operator=(const signal_watch &) = delete;

private:
    event_loop &loop_;
    int descriptor_ = -1;
};

std::unique_ptr<model> read_wanted(const model_sources &from)
{
    if (from.modules.empty()) {
        if (!from.directories.empty() || !from.features.empty()) {
            throw failure("--yang-path and --feature need --yang");
        }
        return nullptr;
    }
    return read_model(from);
}

// What other programs talk to confsim by; open before anything is printed or covered.
struct channels {
    std::optional<program_output> answers;
    std::optional<control_socket> commands;
    std::list<report> reports;
    std::list<trace_file> traces;
};

void open_channels(const settings &wanted, channels &opened)
{
    if (wanted.json) {
        opened.answers.emplace();
    }
    if (!wanted.control.empty()) {
        opened.commands.emplace(wanted.control);
    }
    for (const std::string &each : wanted.reports) {
        if (wanted.json && each == "tap:-") {
            throw failure("standard output is taken by --json");
        }
        opened.reports.emplace_back(each);
    }
    for (const std::string &each : wanted.traces) {
        opened.traces.emplace_back(each);
    }
}

// Plugins that are in the middle of something may still end that.
void settle(conf_daemon &service, findings &found, event_loop &loop, seconds patience)
{
    const auto is_free = [](const plugin_ptr &each) { return each->awaited() == 0; };
    (void)loop.run_until(
        [&] { return std::all_of(service.plugins().begin(), service.plugins().end(), is_free); },
        after(std::min(patience, seconds(1))));
    found.settle(service.plugins());
}

// What only run has.
struct run_parts {
    program_list *started = nullptr;
    program_logs *logs = nullptr;
    error_watch *recorded = nullptr;
};

// Plays the daemon until the commands end, and hangs up. Returns whether all went well.
bool serve(const settings &wanted, channels &to_others, event_loop &loop, console &out,
           case_list &cases, const run_parts &run)
{
    tracer trace(out, &to_others.traces);
    trace.enable(wanted.trace);
    const std::unique_ptr<model> known = read_wanted(wanted.model);
    configuration config(wanted.store, known.get());
    if (!wanted.config.empty() && !config.begin_with(wanted.config)) {
        out.event("the configuration of the store is used, not " + wanted.config);
    }
    const interpreter *knowing = nullptr; // which comes last
    const auto complete = [&knowing](const std::string &line) { return knowing->complete(line); };
    script lines(loop, wanted.script.empty() ? standard_input(loop, out, complete)
                                             : script_input(loop, wanted.script));
    endpoints where(wanted.directory);
    const seconds patience(wanted.timeout);
    findings found(out, cases, run.recorded,
                   wanted.slow ? std::optional<seconds>(*wanted.slow) : std::nullopt,
                   wanted.strict);
    if (!make_room_for_plugins(wanted.most_plugins) &&
        wanted.most_plugins > conf_daemon::usual_plugins) {
        out.event("the limit of descriptors allows fewer plugins than --most-plugins says");
    }
    conf_daemon service(loop, out, trace, config, where, patience, wanted.most_plugins);
    service.set_watcher(&found);
    if (wanted.strict) {
        service.take_breaches_for_errors();
    }
    out.event("sockets in " + where.directory());
    if (run.started != nullptr) {
        run.started->start(std::filesystem::path(wanted.command.front()).filename(),
                           wanted.command);
    }
    interpreter commands({loop, out, trace, config, service, where, patience, run.started, run.logs,
                          wanted.known, &found, &cases});
    knowing = &commands;
    std::optional<control> others;
    if (to_others.commands) {
        others.emplace(loop, out, *to_others.commands, commands);
    }
    conversation session({lines, !wanted.script.empty(),
                          to_others.answers ? &*to_others.answers : nullptr,
                          others ? &*others : nullptr},
                         commands, cases, loop, out);
    const bool is_good = session.hold();
    if (!loop.is_interrupted() || commands.has_quit()) {
        settle(service, found, loop, patience);
    }
    if (found.has_failed()) {
        print_error("confsim: what a plugin does is wrong, see above");
        return false;
    }
    if (is_good && service.has_failed_by_breach()) {
        print_error("confsim: a plugin has broken the model");
        cases.fail("", "a plugin has broken the model");
        return false;
    }
    return is_good;
}

// Ends what was started. Returns whether it ended well.
bool end_programs(const settings &wanted, program_list &started, case_list &cases)
{
    started.end();
    if (wanted.ignore_exit) {
        return true;
    }
    for (const std::string &each : started.complaints()) {
        print_error("confsim: " + each);
        cases.fail("", each);
    }
    return started.complaints().empty();
}

int simulate(settings &wanted, bool with_command)
{
    channels to_others;
    open_channels(wanted, to_others);
    std::optional<sandbox::process_space> space;
    error_watch recorded;
    if (with_command) {
        const std::string library = watch_for(wanted.command.front());
        enter_sandbox(wanted, library);
        space.emplace();
        recorded.begin(library);
    }
    console out;
    if (wanted.mask) {
        out.mask_all();
    }
    if (space && !space->shortcoming().empty()) {
        out.event("no PID namespace: " + space->shortcoming() +
                  ". What COMMAND starts ends with confsim, but not when confsim is killed");
    }
    case_list cases("session");
    if (!to_others.reports.empty()) {
        out.recorder = [&cases](const std::string &text) { cases.record(text); };
    }
    event_loop loop;
    const signal_watch signals(loop);
    bool is_good = false;
    if (space) {
        program_logs logs(loop, out, wanted.log);
        program_list started(loop, out, *space);
        is_good = serve(wanted, to_others, loop, out, cases, {&started, &logs, &recorded});
        is_good = end_programs(wanted, started, cases) && is_good;
    } else {
        is_good = serve(wanted, to_others, loop, out, cases, {});
    }
    for (trace_file &each : to_others.traces) {
        if (const std::string wrong = each.finish(); !wrong.empty()) {
            out.event("warning: " + wrong, tone::finding);
        }
    }
    cases.close();
    for (const report &each : to_others.reports) {
        each.write(cases, wanted.script.empty() ? "session" : wanted.script);
    }
    return is_good ? 0 : failed;
}

// Otherwise the first files that are opened would be taken for standard input and output.
void open_standard_files()
{
    for (int each = STDIN_FILENO; each <= STDERR_FILENO; ++each) {
        if (fcntl(each, F_GETFD) < 0) {
            (void)open("/dev/null", O_RDWR); // takes the lowest free number
        }
    }
}

int examine(const settings &wanted)
{
    doctor::facts here = doctor::facts_here(wanted.directory);
    const doctor::findings found = doctor::examine(here);
    (wanted.json ? doctor::print_json : doctor::print)(std::cout, here, found);
    std::cout.flush();
    return found.empty() && std::cout ? 0 : failed;
}

int parse_and_run(int count, char **arguments)
{
    settings wanted;
    CLI::App app("Plays the configuration daemon for plugins under development.", "confsim");
    app.set_version_flag("--version", "confsim " CONFSIM_VERSION);
    add_common_options(app, wanted);
    CLI::App *run = app.add_subcommand(
        "run", "The same in private namespaces, with a program that is started there");
    add_common_options(*run, wanted);
    run->add_flag("--network", wanted.network, "With a private network namespace, too");
    run->add_flag("--log", wanted.log, "Print what programs write to the logs of the library");
    run->add_flag("--ignore-exit", wanted.ignore_exit,
                  "However COMMAND ends, the exit status is that of the session");
    run->add_option("COMMAND", wanted.command, "The program and its arguments, after --")
        ->required();
    CLI::App *look = app.add_subcommand(
        "doctor", "Says what is wrong where plugins do not find their daemon; changes nothing");
    look->add_option("--dir", wanted.directory, "Directory where the sockets should be");
    look->add_flag("--json", wanted.json, "Print one JSON object");
    arrange_help(app);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : wrong_usage;
    }
    return look->parsed() ? examine(wanted) : simulate(wanted, run->parsed());
}

} // namespace

int main(int count, char **arguments)
{
    open_standard_files();
    try {
        const int status = parse_and_run(count, arguments);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
            throw failure("cannot write all of the output");
        }
        return status;
    } catch (const std::exception &error) {
        print_error(std::string("confsim: ") + error.what());
        return failed;
    }
}
