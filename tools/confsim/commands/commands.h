// The command language: one command a line, found in a table.
#ifndef CONFSIM_COMMANDS_H
#define CONFSIM_COMMANDS_H

#include "commands/console.h"
#include "commands/programs.h"
#include "commands/script.h"
#include "commands/variables.h"
#include "failure.h"
#include "reports/answer.h"
#include "reports/cases.h"
#include "reports/findings.h"
#include "reports/program_logs.h"
#include "service/daemon.h"
#include "service/endpoints.h"
#include "service/loop.h"
#include "store/configuration.h"
#include "terminal/completion.h"
#include "trace/trace.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace confsim {

// What the commands work on.
struct workplace {
    event_loop &loop;
    console &out;
    tracer &trace;
    configuration &config;
    conf_daemon &service;
    endpoints &where;
    seconds patience;
    program_list *started = nullptr; // of run
    program_logs *logs = nullptr;    // of run
    variables known{};               // that commands may name
    findings *found = nullptr;
    case_list *cases = nullptr; // of the script, if there is one
};

class interpreter {
public:
    explicit interpreter(const workplace &here) : here_(here) {}

    // Carries one line out and prints its answer, which begins with "error: " when it fails.
    // Returns whether it succeeded; an empty line does. `from` is the script that a line is of, if
    // it is of one, and that it may shape.
    bool run(const std::string &line, script *from = nullptr);

    [[nodiscard]] bool has_quit() const { return has_quit_; }
    // Why the last command failed.
    [[nodiscard]] const std::string &error() const { return error_; }
    // What the last line led to; none when it held no command.
    [[nodiscard]] const std::optional<command_answer> &last() const { return report_; }
    // Whether a command is being carried out, so that there can be no other now.
    [[nodiscard]] bool is_busy() const { return is_busy_; }

    // What can stand at the end of a line that is being typed.
    [[nodiscard]] completion complete(const std::string &line) const;

private:
    using words = std::vector<std::string>;
    struct command {
        const char *name;
        const char *arguments;
        const char *help;
        std::size_t fewest;
        std::size_t most;
        void (interpreter::*carry_out)(const words &);
    };
    static const command table[];

    [[nodiscard]] static std::vector<usage> usages();
    [[nodiscard]] static const command &look_up(const words &line);
    [[nodiscard]] static const command &look_inside(const words &line);
    [[nodiscard]] static bool keeps_answer(const words &line);
    [[nodiscard]] static std::string expected_text(const words &line);
    [[nodiscard]] script &own_script() const;
    [[nodiscard]] program_list &own_programs() const;
    void let_go_wrong(const words &line);
    void end_trouble();
    void hang_up_on_one_of_all(std::uint32_t drawn);
    void hang(seconds time);
    void expect_end(child &of, const words &line, std::size_t position);
    void keep_nodes();
    void carry_out(const words &line);
    void say(std::string text, tone meant = tone::plain);
    [[nodiscard]] std::string shown(const node &tree) const;
    void concern(const std::string &plugin, const std::string &where);
    std::string note(const failure &reason);
    [[nodiscard]] std::string shown_xml(const std::string &text) const;
    [[nodiscard]] std::string shown_children(const xmlNode *parent) const;
    [[nodiscard]] plugin_ptr active_plugin(const std::string &name) const;
    [[nodiscard]] static bool is_number(const std::string &word);
    [[nodiscard]] seconds patience_from(const words &line, std::size_t position) const;
    [[nodiscard]] static const xmlNode *result_of(const answer &got, const std::string &plugin,
                                                  const std::string &where);

    void plugins(const words &line);
    void load(const words &line);
    void set(const words &line);
    void remove(const words &line);
    void show(const words &line);
    void diff(const words &line);
    void commit(const words &line);
    void discard(const words &line);
    void status(const words &line);
    void call(const words &line);
    void kickoff(const words &line);
    void wait(const words &line);
    void wait_notification(const words &line);
    void notifications(const words &line);
    void expect(const words &line);
    void expect_not(const words &line);
    void expect_match(const words &line);
    void expect_xpath(const words &line);
    void expect_message(const words &line);
    void expect_within(const words &line);
    void expect_exit(const words &line);
    void expect_log(const words &line);
    void start(const words &line);
    void signal(const words &line);
    void wait_exit(const words &line);
    void expect_failure(const words &line);
    void attempt(const words &line);
    void begin_case(const words &line);
    void end_case(const words &line);
    void include(const words &line);
    void repeat(const words &line);
    void sleep(const words &line);
    void echo(const words &line);
    void trace(const words &line);
    void move(const words &line);
    void validate(const words &line);
    void model(const words &line);
    void order_fault(const words &line);
    void draw_faults(const words &line);
    void faults(const words &line);
    void stop(const words &line);
    void restart(const words &line);
    void hang_up(const words &line);
    void fill_notifier(const words &line);
    void spoil_profile(const words &line);
    void help(const words &line);
    void quit(const words &line);

    workplace here_;
    script *script_ = nullptr;                // of the line that is carried out
    std::string answer_;                      // of the last command that gives one
    std::optional<std::string> answer_nodes_; // the same, if it is XML
    bool keeps_answer_ = false;
    std::optional<command_answer> report_;
    std::string error_;
    bool is_busy_ = false;
    bool is_profile_spoilt_ = false; // by chaos
    bool has_quit_ = false;
};

} // namespace confsim

#endif
