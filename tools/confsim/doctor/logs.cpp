// Are the debug file and the system log written, and by whom? See conf_debug.h.
#include "doctor/checks.h"
#include "doctor/processes.h"

#include <cerrno>
#include <filesystem>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace confsim::doctor {

namespace {

constexpr const char *debug_file = "/var/log/conf_plugin.log";
constexpr const char *system_log = "/dev/log";

// The library removes a file of more than 2 MiB before it writes the next line, so that only the
// lines of a few processes can stand beyond that.
constexpr off_t longest_debug_file = 0x200000 + 0x10000;

std::string owner_of(const struct stat &status)
{
    const passwd *user = getpwuid(status.st_uid);
    return user == nullptr ? "user " + std::to_string(status.st_uid) : user->pw_name;
}

// Connects like syslog(3), which sends nothing before the first message. Returns 0, or the error.
int reach_system_log()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(system_log).copy(address.sun_path, sizeof address.sun_path - 1);
    int cause = 0;
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int probe = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const bool reached =
            probe >= 0 &&
            connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        cause = reached ? 0 : errno;
        if (probe >= 0) {
            close(probe);
        }
        if (cause != EPROTOTYPE) {
            break;
        }
    }
    return cause;
}

} // namespace

findings check_debug_file(facts &here)
{
    struct stat status {};
    if (lstat(debug_file, &status) != 0) {
        here.notes.push_back(std::string("nobody has written ") + debug_file);
        return {};
    }
    const std::string removal = std::string("sudo rm ") + debug_file;
    if (!S_ISREG(status.st_mode)) {
        return {{"debug-file-replaced",
                 std::string(debug_file) + " is no file but a " +
                     (S_ISLNK(status.st_mode) ? "link, which root does not follow"
                                              : "thing that "
                                                "keeps no log"),
                 removal}};
    }
    if ((status.st_mode & S_IROTH) != 0) {
        return {{"debug-file-open",
                 std::string("everybody may read ") + debug_file + ", which holds secrets unmasked",
                 std::string("sudo chmod 0640 ") + debug_file}};
    }
    if (!may(debug_file, W_OK)) {
        return {{"debug-file-forbidden",
                 std::string(debug_file) + " belongs to " + owner_of(status) +
                     ": plugins of this user write nothing there",
                 removal}};
    }
    if (status.st_size > longest_debug_file) {
        return {{"debug-file-too-long",
                 std::string(debug_file) + " has " + std::to_string(status.st_size) +
                     " bytes: who writes it may not remove it",
                 removal}};
    }
    here.notes.push_back(std::string(debug_file) + " belongs to " + owner_of(status) + " and has " +
                         std::to_string(status.st_size) + " bytes");
    return {};
}

findings check_system_log(facts &here)
{
    const int cause = reach_system_log();
    struct stat status {};
    if (cause != 0 && lstat(system_log, &status) != 0) {
        // As in a container or in "confsim run", where nobody misses it.
        here.notes.push_back(std::string("there is no ") + system_log +
                             ": what the library reports there is lost");
        return {};
    }
    if (cause == EACCES) {
        return {{"system-log-forbidden", std::string("this user may not write to ") + system_log,
                 std::string("sudo chmod a+w ") + system_log}};
    }
    if (cause != 0) {
        return {{"system-log-stale",
                 std::string("nobody listens at ") + system_log +
                     ": what the library reports there is lost",
                 "sudo systemctl restart systemd-journald rsyslog"}};
    }
    std::error_code unreadable;
    const std::string place = std::filesystem::canonical(system_log, unreadable).string();
    std::string readers;
    for (const int id : holders_of_socket(place)) {
        readers += (readers.empty() ? "" : ", ") + process_text(id);
    }
    here.notes.push_back(std::string(system_log) + " is read" +
                         (readers.empty() ? "" : " by " + readers));
    return {};
}

} // namespace confsim::doctor
