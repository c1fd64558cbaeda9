// A part of confsvc_test.hpp: the program confsim that a session talks to, and what it answers.
#ifndef CONFSVC_TEST_CHANNEL_HPP
#define CONFSVC_TEST_CHANNEL_HPP

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
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
    static constexpr const char *complaint = "confsim has answered something else than JSON: ";

    [[nodiscard]] char peek() const
    {
        if (place_ >= text_.size()) {
            throw error(complaint + std::string(text_));
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
            throw error(complaint + std::string(text_));
        }
    }

    std::string string()
    {
        constexpr std::string_view names = "bfnrt";
        std::string decoded;
        for (take('"'); !skip('"');) {
            const bool is_escaped = skip('\\');
            const char c = peek();
            ++place_;
            if (is_escaped && c == 'u') { // only controls are written so, one byte each
                const std::string digits(text_.substr(place_, 4));
                decoded += static_cast<char>(std::stoi(digits, nullptr, 16));
                place_ += 4;
            } else {
                const std::size_t known = is_escaped ? names.find(c) : std::string_view::npos;
                decoded += known == std::string_view::npos ? c : "\b\f\n\r\t"[known];
            }
        }
        return decoded;
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
    // What is printed for people goes to the file `log`, or to standard error.
    channel(const std::vector<std::string> &command, const std::string &log)
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
        if (!log.empty()) {
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0666);
        }
        const int cause =
            posix_spawnp(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        socket_ = ends[0];
        if (cause != 0) {
            close(socket_);
            throw error("cannot start " + command[0] +
                        (log.empty() ? "" : " that prints to " + log) + ": " +
                        std::strerror(cause));
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
            sent +=
                moved(send(socket_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL), asked);
        }
        std::size_t end = 0;
        while ((end = received_.find('\n')) == std::string::npos) {
            char bytes[65536];
            received_.append(bytes, moved(read(socket_, bytes, sizeof bytes), asked));
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
    // How many bytes a call has moved.
    static std::size_t moved(ssize_t count, const std::string &asked)
    {
        if (count == 0 || (count < 0 && errno != EINTR)) {
            throw error("confsim has ended at: " + asked);
        }
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    pid_t process_ = 0;
    int socket_ = -1;
    int status_ = 0;
    std::string received_;
};

} // namespace detail

} // namespace confsvc::test

#endif
