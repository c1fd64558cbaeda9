// Tests of plugins in C++: each function is a command to confsim, and returns its answer.
//
//     using namespace confsvc::test;
//     session daemon({"./hello"}, {"hello"});
//     daemon.set("/hello:settings/greeting", "Hi");
//     daemon.commit();
//     assert(daemon.status("/hello:state").xpath("/hello:state/said").at(0) == "Hi");
//     daemon.erase("/hello:settings");
//     result refusal = daemon.commit(may_fail);
//     assert(refusal.code() == 42 && refusal.text() == "A greeting is needed.");
//
// The plugin and confsim run in a sandbox of their own, so nothing of this machine is touched and
// any number of sessions can go on at once. What both print is on standard error. A command that
// fails throws, which GoogleTest and Catch2 report as the test's failure; with `may_fail` it
// returns its result. A session and what it returns belong to one thread.
//
// C++17, header only; relies on POSIX and on confsim, found by $CONFSIM or PATH, and its --json.
#ifndef CONFSVC_TEST_HPP
#define CONFSVC_TEST_HPP

#include "confsvc_test_channel.hpp"

#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace confsvc::test {

// Whether a command that fails is an error of the test.
enum allowance { must_succeed, may_fail };

// The answer to one command.
class result {
public:
    result(std::shared_ptr<detail::channel> from, const std::string &answer)
        : from_(std::move(from)), number_(from_->commands),
          members_(detail::json_reader(answer).object())
    {
    }

    [[nodiscard]] bool ok() const { return member("ok") == "true"; }
    [[nodiscard]] std::string text() const { return member("text"); } // a refusal: the plugin's
    // The code with which a plugin refused; none when it did not.
    [[nodiscard]] std::optional<int> code() const
    {
        const std::string code = member("code");
        return code.empty() ? std::nullopt : std::optional(std::stoi(code));
    }
    // The plugin that was asked, or that refused; and the path of which the command was.
    [[nodiscard]] std::string plugin() const { return member("plugin"); }
    [[nodiscard]] std::string path() const { return member("path"); }
    // XML of nodes; lists and objects as JSON. See confsim-json.
    [[nodiscard]] std::string data() const { return member("data"); }
    [[nodiscard]] double seconds() const { return std::stod(member("seconds")); }

    // The texts that an XPath finds in the XML of this answer, in their order. Only for the last
    // answer of a session, as it is confsim that looks; throws std::logic_error for others.
    [[nodiscard]] std::vector<std::string> xpath(const std::string &expression) const
    {
        if (number_ != from_->commands) {
            throw std::logic_error("xpath() looks into the last answer only");
        }
        return from_->xpath(expression);
    }

private:
    [[nodiscard]] std::string member(const std::string &name) const
    {
        const auto found = members_.find(name);
        return found == members_.end() ? std::string() : found->second;
    }

    std::shared_ptr<detail::channel> from_;
    unsigned long number_;
    std::map<std::string, std::string> members_;
};

// A command failed; what() tells which, and why.
class failed : public std::runtime_error {
public:
    failed(const std::string &command, result answer)
        : std::runtime_error(command + ": " + answer.text()), answer_(std::move(answer))
    {
    }
    [[nodiscard]] const result &answer() const { return answer_; }

private:
    result answer_;
};

// A plugin refused.
struct refused : failed {
    using failed::failed;
};

struct options {
    std::string plugin{};            // its name; the session begins when it is activated
    std::string config{};            // file with the configuration at the beginning
    std::vector<std::string> yang{}; // files and directories of YANG modules
    std::vector<std::string> more{}; // further options of confsim
    std::string log{};               // file for what both print; else it goes to standard error
    std::string confsim{};           // the program; else $CONFSIM, or what is in PATH
    int patience = 30;               // seconds for the plugin to be activated
};

class session {
public:
    // `command` is the plugin with its arguments. Throws error, or failed when the plugin does not
    // come.
    explicit session(const std::vector<std::string> &command, const options &wanted = {})
        : confsim_(std::make_shared<detail::channel>(line_for(command, wanted), wanted.log))
    {
        if (!wanted.plugin.empty()) {
            wait(wanted.plugin, wanted.patience);
        }
    }

    // Ends the session. Throws error when the plugin did not end in good order. The destructor ends
    // it, too, and says nothing.
    void close()
    {
        const int status = confsim_->end();
        if (status != 0) {
            throw error("confsim ended with status " + std::to_string(status) + "; see its output");
        }
    }

    // Carries out a command as one types it.
    result send(const std::string &line, allowance wanted = must_succeed)
    {
        ++confsim_->commands;
        result answer(confsim_, confsim_->exchange(line));
        if (answer.ok() || wanted == may_fail) {
            return answer;
        }
        if (answer.code()) {
            throw refused(line, answer);
        }
        throw failed(line, answer);
    }

    // ---- the configuration

    // Makes the nodes of a path in the candidate; with a value, sets the text of a leaf.
    result set(const std::string &path, allowance wanted = must_succeed)
    {
        return send("set " + detail::words({path}), wanted);
    }
    result set(const std::string &path, const std::string &value, allowance wanted = must_succeed)
    {
        return send("set " + detail::words({path, value}), wanted);
    }
    // Removes nodes from the candidate.
    result erase(const std::string &path, allowance wanted = must_succeed)
    {
        return send("delete " + detail::words({path}), wanted);
    }
    // Moves a list entry "first" or "last", or "before" or "after" another one. Needs a model.
    result move(const std::string &path, const std::string &where, const std::string &other = "",
                allowance wanted = must_succeed)
    {
        return send("move " + (other.empty() ? detail::words({path, where})
                                             : detail::words({path, where, other})),
                    wanted);
    }
    // Takes the candidate from a file.
    result load(const std::string &file, allowance wanted = must_succeed)
    {
        return send("load " + detail::words({file}), wanted);
    }
    // Whether the model allows the candidate.
    result validate(allowance wanted = must_succeed) { return send("validate", wanted); }
    // Puts the candidate in force. The data has what each plugin was told and answered.
    result commit(allowance wanted = must_succeed) { return send("commit", wanted); }
    // Makes the candidate equal to the running configuration.
    result discard() { return send("discard"); }
    // The running configuration, or what is at a path of it, as XML.
    result show(const std::string &path = "", allowance wanted = must_succeed)
    {
        return send("show running" + (path.empty() ? "" : " " + detail::words({path})), wanted);
    }

    // ---- plugins, and what they say

    // Asks a plugin for its status.
    result status(const std::string &path, allowance wanted = must_succeed)
    {
        return send("status " + detail::words({path}), wanted);
    }
    // Calls an operation with XML on one line, or none.
    result call(const std::string &operation, const std::string &xml = "",
                allowance wanted = must_succeed)
    {
        return send("call " + detail::words({operation}) + (xml.empty() ? "" : " " + xml), wanted);
    }
    // Until a plugin is activated.
    result wait(const std::string &plugin, int seconds = 30)
    {
        return send("wait " + detail::words({plugin}) + " " + std::to_string(seconds));
    }
    // Until a notification arrives that was not shown yet.
    result wait_notification(int seconds = 5, allowance wanted = must_succeed)
    {
        return send("wait-notification " + std::to_string(seconds), wanted);
    }
    // Until a plugin has sent a message of a method that was not expected before. With an XPath,
    // one that has such nodes; with a value, too, one where their text is that.
    result expect_message(const std::string &plugin, const std::string &method,
                          const std::vector<std::string> &xpath_and_value = {}, int seconds = 5,
                          allowance wanted = must_succeed)
    {
        std::vector<std::string> all = {plugin, method};
        all.insert(all.end(), xpath_and_value.begin(), xpath_and_value.end());
        return send("expect-message " + detail::words(all) + " " + std::to_string(seconds), wanted);
    }
    // Until a program has logged a line with a text that was not expected before.
    result expect_log(const std::string &text, allowance wanted = must_succeed)
    {
        return send("expect-log " + detail::words({text}), wanted);
    }
    // Ends a plugin in good order.
    result kickoff(const std::string &plugin) { return send("kickoff " + detail::words({plugin})); }

    // ---- what goes wrong

    // Orders a fault: "drop" for instance, or "off".
    result fault(const std::string &plugin, const std::string &what)
    {
        return send("fault " + detail::words({plugin}) + " " + what);
    }
    // Draws faults for so many percent of frames, requests and commands, until chaos_off().
    result chaos(unsigned seed, unsigned rate)
    {
        return send("chaos " + std::to_string(seed) + " " + std::to_string(rate));
    }
    result chaos_off() { return send("chaos off"); }
    // The daemon hangs; goes away and comes back; hangs up on a plugin.
    result stop(double seconds) { return send("stop " + std::to_string(seconds)); }
    result restart(double seconds = 0) { return send("restart " + std::to_string(seconds)); }
    result kill(const std::string &plugin) { return send("kill " + detail::words({plugin})); }

    // ---- further programs

    result start(const std::string &name, const std::vector<std::string> &command)
    {
        return send("start " + detail::words({name}) + " -- " + detail::words(command));
    }
    result signal(const std::string &program, const std::string &which)
    {
        return send("signal " + detail::words({program, which}));
    }
    // Until the program ends with a status, or by a signal whose name is given.
    result wait_exit(const std::string &program, const std::string &status = "0", int seconds = 30,
                     allowance wanted = must_succeed)
    {
        return send("wait-exit " + detail::words({program, status}) + " " + std::to_string(seconds),
                    wanted);
    }

    // The texts that an XPath finds in the last answer, or in the running configuration.
    std::vector<std::string> xpath(const std::string &expression)
    {
        return confsim_->xpath(expression);
    }

private:
    static std::vector<std::string> line_for(const std::vector<std::string> &command,
                                             const options &wanted)
    {
        const char *known = std::getenv("CONFSIM");
        const std::string program = known != nullptr ? known : "confsim";
        std::vector<std::string> line = {wanted.confsim.empty() ? program : wanted.confsim, "run",
                                         "--json"};
        if (!wanted.config.empty()) {
            line.insert(line.end(), {"--config", wanted.config});
        }
        for (const std::string &each : wanted.yang) {
            line.insert(line.end(), {"--yang", each});
        }
        line.insert(line.end(), wanted.more.begin(), wanted.more.end());
        line.emplace_back("--");
        line.insert(line.end(), command.begin(), command.end());
        return line;
    }

    std::shared_ptr<detail::channel> confsim_;
};

} // namespace confsvc::test

#endif
