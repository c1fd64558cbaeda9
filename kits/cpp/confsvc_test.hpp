// Tests of plugins in C++: each function is a command to confsim, and returns its answer.
//
//     #include <confsvc_test.hpp>
//     using namespace confsvc::test;
//
//     session daemon({"./hello"}, {"hello"});
//     daemon.set("/hello:settings/greeting", "Hi");
//     daemon.commit();
//     assert(daemon.status("/hello:state").xpath("/hello:state/said").at(0) == "Hi");
//     daemon.erase("/hello:settings");
//     result refusal = daemon.commit(may_fail);
//     assert(refusal.code() == 42 && refusal.text() == "A greeting is needed.");
//
// The plugin and confsim run in a sandbox of their own, so that nothing of this machine is touched and
// any number of sessions can go on at once. What both print is on standard error. A command that fails
// throws, which GoogleTest and Catch2 report as the failure of the test; with `may_fail` its result is
// returned. A session, and what it returns, belongs to one thread.
//
// C++17, header only; relies on POSIX and on confsim, which is looked for in $CONFSIM and then in PATH,
// and its option --json.
#ifndef CONFSVC_TEST_HPP
#define CONFSVC_TEST_HPP

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace confsvc::test {

// Whether a command that fails is an error of the test.
enum allowance { must_succeed, may_fail };

// confsim itself cannot go on: it did not start, or has ended.
class error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace detail {

// Reads what confsim prints: one object with texts, numbers, truth values, and lists as they stand.
class json_reader {
public:
    explicit json_reader(std::string_view text) : text_(text) {}

    // The members of an object. Strings are decoded, all else stands as it is written.
    std::map<std::string, std::string> object()
    {
        std::map<std::string, std::string> members;
        take('{');
        while (!at('}')) {
            const std::string name = string();
            take(':');
            members[name] = at('"') ? string() : raw();
            (void)skip(',');
        }
        return members;
    }

    // The members of an array, likewise.
    std::vector<std::string> array()
    {
        std::vector<std::string> members;
        take('[');
        while (!at(']')) {
            members.push_back(at('"') ? string() : raw());
            (void)skip(',');
        }
        return members;
    }

private:
    [[nodiscard]] char peek() const
    {
        if (place_ >= text_.size()) {
            throw error("confsim has answered something else than JSON: " + std::string(text_));
        }
        return text_[place_];
    }
    [[nodiscard]] bool at(char wanted) const { return peek() == wanted; }
    bool skip(char wanted)
    {
        const bool is_there = at(wanted);
        place_ += is_there ? 1 : 0;
        return is_there;
    }
    void take(char wanted)
    {
        if (!skip(wanted)) {
            throw error("confsim has answered something else: " + std::string(text_));
        }
    }

    std::string string()
    {
        std::string decoded;
        take('"');
        while (!skip('"')) {
            const char c = peek();
            ++place_;
            if (c == '\\') {
                escaped(decoded);
            } else {
                decoded += c;
            }
        }
        return decoded;
    }

    void escaped(std::string &decoded)
    {
        constexpr std::string_view names = "bfnrt";
        const char c = peek();
        ++place_;
        if (c == 'u') {
            // Only controls are written so, one byte each.
            decoded += static_cast<char>(std::stoi(std::string(text_.substr(place_, 4)), nullptr, 16));
            place_ += 4;
        } else {
            const std::size_t known = names.find(c);
            decoded += known == std::string_view::npos ? c : "\b\f\n\r\t"[known];
        }
    }

    // A number, a truth value, or a whole array or object.
    std::string raw()
    {
        const std::size_t begin = place_;
        int depth = 0;
        while (depth > 0 || (!at(',') && !at('}') && !at(']'))) {
            if (at('"')) {
                (void)string();
                continue;
            }
            depth += at('{') || at('[') ? 1 : at('}') || at(']') ? -1 : 0;
            ++place_;
        }
        return std::string(text_.substr(begin, place_ - begin));
    }

    std::string_view text_;
    std::size_t place_ = 0;
};

// Words as confsim reads them, whatever they hold.
inline std::string words(const std::vector<std::string> &all)
{
    std::string line;
    for (const std::string &each : all) {
        line += line.empty() ? "\"" : " \"";
        for (const char c : each) {
            line += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        }
        line += '"';
    }
    return line;
}

// confsim with the program that it runs, and the socket that is its standard input and output.
class channel {
public:
    explicit channel(const std::vector<std::string> &command)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            throw error(std::string("no socket for confsim: ") + std::strerror(errno));
        }
        std::vector<char *> arguments;
        for (const std::string &each : command) {
            arguments.push_back(const_cast<char *>(each.c_str()));
        }
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 0);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        const int cause =
            posix_spawnp(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        socket_ = ends[0];
        if (cause != 0) {
            close(socket_);
            throw error("cannot start " + command[0] + ": " + std::strerror(cause));
        }
    }
    ~channel() { (void)end(); }
    channel(const channel &) = delete;
    channel &operator=(const channel &) = delete;

    // Ends the session, and returns the exit status of confsim.
    int end()
    {
        if (socket_ >= 0) {
            shutdown(socket_, SHUT_WR);
            char rest[4096];
            while (read(socket_, rest, sizeof rest) > 0) {
            }
            close(std::exchange(socket_, -1));
            while (waitpid(process_, &status_, 0) < 0 && errno == EINTR) {
            }
        }
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
    }

    std::string exchange(std::string line)
    {
        if (socket_ < 0 || line.find('\n') != std::string::npos) {
            throw std::logic_error("a command is one line, of a session that goes on");
        }
        const std::string asked = line;
        line += '\n';
        std::size_t sent = 0;
        while (sent < line.size()) {
            const ssize_t count =
                send(socket_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
            if (count < 0 && errno != EINTR) {
                throw error("confsim has ended at: " + asked);
            }
            sent += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        std::size_t end = 0;
        while ((end = received_.find('\n')) == std::string::npos) {
            char bytes[65536];
            const ssize_t count = read(socket_, bytes, sizeof bytes);
            if (count == 0 || (count < 0 && errno != EINTR)) {
                throw error("confsim has ended at: " + asked);
            }
            received_.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
        }
        std::string answer = received_.substr(0, end);
        received_.erase(0, end + 1);
        return answer;
    }

    // The texts that an XPath finds in the last answer, or in the running configuration.
    std::vector<std::string> xpath(const std::string &expression)
    {
        const std::string text = exchange("expect-xpath " + words({expression}));
        std::map<std::string, std::string> answer = json_reader(text).object();
        if (answer.find("data") == answer.end()) {
            throw std::invalid_argument(expression + ": " + answer["text"]);
        }
        return json_reader(answer["data"]).array();
    }

    unsigned long commands = 0; // that were carried out

private:
    pid_t process_ = 0;
    int socket_ = -1;
    int status_ = 0;
    std::string received_;
};

} // namespace detail

// The answer to one command.
class result {
public:
    result(std::shared_ptr<detail::channel> from, const std::string &answer)
        : from_(std::move(from)), number_(from_->commands),
          members_(detail::json_reader(answer).object())
    {
    }

    [[nodiscard]] bool ok() const { return member("ok") == "true"; }
    // What people read; of a refusal the plugin's own text.
    [[nodiscard]] std::string text() const { return member("text"); }
    // The code with which a plugin refused; none when it did not.
    [[nodiscard]] std::optional<int> code() const
    {
        const std::string code = member("code");
        return code.empty() ? std::nullopt : std::optional<int>(std::stoi(code));
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
class refused : public failed {
public:
    using failed::failed;
};

struct options {
    std::string plugin{};            // its name; the session begins when it is activated
    std::string config{};            // file with the configuration at the beginning
    std::vector<std::string> yang{}; // files and directories of YANG modules
    std::vector<std::string> more{}; // further options of confsim
    std::string confsim{};           // the program; else $CONFSIM, or what is in PATH
    int patience = 30;               // seconds for the plugin to be activated
};

class session {
public:
    // `command` is the plugin with its arguments. Throws error, or failed when the plugin does not
    // come.
    explicit session(const std::vector<std::string> &command, const options &wanted = {})
        : confsim_(std::make_shared<detail::channel>(line_for(command, wanted)))
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
            throw error("confsim ended with status " + std::to_string(status) +
                        "; see its output");
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
    // Puts the candidate in force, or makes it equal to what is.
    result commit(allowance wanted = must_succeed) { return send("commit", wanted); }
    result discard() { return send("discard"); }
    // The running configuration, or what is at a path of it, as XML.
    result show() { return send("show"); }
    result show(const std::string &path, allowance wanted = must_succeed)
    {
        return send("show " + detail::words({path}), wanted);
    }
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
    // Until a plugin is activated, and until a notification arrives that was not shown yet.
    result wait(const std::string &plugin, int seconds = 30)
    {
        return send("wait " + detail::words({plugin}) + " " + std::to_string(seconds));
    }
    result wait_notification(int seconds = 5, allowance wanted = must_succeed)
    {
        return send("wait-notification " + std::to_string(seconds), wanted);
    }
    // Orders a fault, such as fault("hello", "drop"), or "off".
    result fault(const std::string &plugin, const std::string &what)
    {
        return send("fault " + detail::words({plugin}) + " " + what);
    }
    // The daemon goes away, and comes back.
    result restart() { return send("restart"); }
    // Kicks a plugin off, which ends it in good order.
    result kickoff(const std::string &plugin) { return send("kickoff " + detail::words({plugin})); }

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
        std::vector<std::string> line = {!wanted.confsim.empty() ? wanted.confsim
                                         : known != nullptr      ? known
                                                                 : "confsim",
                                         "run", "--json"};
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
