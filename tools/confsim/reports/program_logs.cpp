// See program_logs.h.
#include "reports/program_logs.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace confsim {

namespace {

constexpr const char *system_log_place = "/dev/log";
constexpr const char *debug_file_place = "/var/log/conf_plugin.log";
constexpr std::size_t most_bytes = std::size_t{4} * 1024 * 1024;
constexpr seconds between_looks(0.05); // at the debug file

int open_system_log()
{
    const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(system_log_place).copy(address.sun_path, sizeof address.sun_path - 1);
    if (made < 0 || bind(made, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int cause = errno;
        close(made);
        throw failure(std::string("no system log: ") + std::generic_category().message(cause));
    }
    return made;
}

// "<14>Nov 26 11:00:00 hello[7]: text" without what is the same in each line, or of no interest.
std::string without_head(const std::string &message)
{
    constexpr std::size_t time_length = 16;
    const std::size_t behind = message.starts_with('<') ? message.find('>') + 1 : 0;
    return message.substr(std::min(behind + time_length, message.size()));
}

bool is_same_file(int descriptor, const char *place)
{
    struct stat opened {};
    struct stat there {};
    return fstat(descriptor, &opened) == 0 && stat(place, &there) == 0 &&
           opened.st_dev == there.st_dev && opened.st_ino == there.st_ino;
}

} // namespace

program_logs::program_logs(event_loop &loop, const console &out, bool shows)
    : loop_(loop), out_(out), shows_(shows), system_log_(open_system_log())
{
    // The library in confsim itself must not wait for confsim to read that.
    (void)setlogmask(LOG_MASK(LOG_EMERG));
    loop_.watch(system_log_, POLLIN, [this](short) { receive(); });
    if (shows_) {
        look_regularly();
    }
}

program_logs::~program_logs()
{
    if (next_look_) {
        loop_.stop_timer(*next_look_);
        receive();
        read_debug_file();
    }
    loop_.forget(system_log_);
    close(system_log_);
    if (debug_file_ >= 0) {
        close(debug_file_);
    }
}

void program_logs::look_regularly()
{
    read_debug_file();
    next_look_ = loop_.start_timer(between_looks, [this] { look_regularly(); });
}

void program_logs::receive()
{
    std::array<char, 65536> bytes{};
    ssize_t count = 0;
    while ((count = recv(system_log_, bytes.data(), bytes.size(), 0)) >= 0) {
        std::string text = without_head({bytes.data(), static_cast<std::size_t>(count)});
        text.resize(text.find_last_not_of(std::string("\n\0", 2)) + 1);
        add("system log", text);
    }
}

// Reads what was added. The file may be gone and made anew meanwhile.
void program_logs::read_debug_file()
{
    if (debug_file_ < 0) {
        debug_file_ = open(debug_file_place, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }
    if (debug_file_ < 0) {
        return;
    }
    const bool is_current = is_same_file(debug_file_, debug_file_place);
    std::array<char, 65536> bytes{};
    ssize_t count = 0;
    while ((count = read(debug_file_, bytes.data(), bytes.size())) > 0) {
        unfinished_.append(bytes.data(), static_cast<std::size_t>(count));
    }
    std::size_t begin = 0;
    for (std::size_t end; (end = unfinished_.find('\n', begin)) != std::string::npos;) {
        add("debug file", unfinished_.substr(begin, end - begin));
        begin = end + 1;
    }
    unfinished_.erase(0, begin);
    if (!is_current) {
        close(std::exchange(debug_file_, -1));
        unfinished_.clear();
    }
}

void program_logs::add(const char *log, const std::string &line)
{
    if (shows_) {
        out_.event(std::string(log) + ": " + line);
    }
    lines_.push_back(line);
    size_ += line.size();
    while (size_ > most_bytes) {
        size_ -= lines_.front().size();
        lines_.pop_front();
    }
}

std::optional<std::string> program_logs::find(const std::string &text)
{
    const auto found = std::find_if(lines_.begin(), lines_.end(), [&text](const std::string &line) {
        return line.find(text) != std::string::npos;
    });
    if (found == lines_.end()) {
        return std::nullopt;
    }
    std::string line = std::move(*found);
    size_ -= line.size();
    lines_.erase(found);
    return line;
}

std::optional<std::string> program_logs::take(const std::string &text, seconds patience)
{
    const steady_clock::time_point deadline = after(patience);
    std::optional<std::string> line;
    const auto is_there = [&] { return (line = find(text)).has_value(); };
    read_debug_file();
    while (!loop_.run_until(is_there, std::min(deadline, after(between_looks))) &&
           steady_clock::now() < deadline && !loop_.is_interrupted()) {
        read_debug_file();
    }
    return line;
}

} // namespace confsim
