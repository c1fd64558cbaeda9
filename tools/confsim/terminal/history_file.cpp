// See history_file.h. Each line is appended at once, so what was typed is there after a kill, too.
#include "terminal/history_file.h"

#include "trace/mask.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace confsim {

namespace {

namespace fs = std::filesystem;

// Writes all of a text to the end of a file.
bool append(const fs::path &file, const std::string &text, int further_flags)
{
    const int descriptor = open(
        file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | further_flags, 0600);
    if (descriptor < 0) {
        return false;
    }
    const bool is_written =
        fchmod(descriptor, 0600) == 0 && // of a file that was there, too
        write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(descriptor);
    return is_written;
}

fs::path absolute_from(const char *variable)
{
    const char *value = std::getenv(variable);
    const fs::path given = value == nullptr ? "" : value;
    return given.is_absolute() ? given : "";
}

} // namespace

std::vector<std::string> history_file::lines() const
{
    std::vector<std::string> all;
    std::error_code error;
    if (!fs::is_regular_file(file_, error)) {
        return all;
    }
    std::ifstream stream(file_);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            all.push_back(line);
        }
    }
    if (all.size() > most_lines) {
        all.erase(all.begin(), all.end() - most_lines);
    }
    return all;
}

void history_file::add(const std::string &line)
{
    if (file_.empty() || line == last_ || may_carry_secret(line)) {
        return;
    }
    last_ = line;
    std::error_code error;
    if (fs::create_directories(file_.parent_path(), error)) {
        fs::permissions(file_.parent_path(), fs::perms::owner_all, error);
    }
    std::vector<std::string> all = lines(); // of other sessions, too
    if (all.size() < most_lines) {
        (void)append(file_, line + '\n', 0);
        return;
    }
    std::string text;
    for (auto each = all.begin() + 1; each != all.end(); ++each) {
        text += *each + '\n';
    }
    const fs::path fresh = file_.string() + "." + std::to_string(getpid());
    if (append(fresh, text + line + '\n', O_EXCL)) {
        fs::rename(fresh, file_, error);
    } else {
        fs::remove(fresh, error);
    }
}

fs::path usual_history()
{
    fs::path state = absolute_from("XDG_STATE_HOME");
    if (const fs::path home = absolute_from("HOME"); state.empty() && !home.empty()) {
        state = home / ".local" / "state";
    }
    return state.empty() ? state : state / "confsim" / "history";
}

} // namespace confsim
