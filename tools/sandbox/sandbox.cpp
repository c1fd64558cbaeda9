// See sandbox.h. Relies on /proc being mounted; everything is undone by the kernel when the last
// process of the namespaces ends.
//
// A covered directory is hidden under an empty file system of its own. What must stay reachable in
// it, or come back into it (the devices), is opened before and bound back through /proc/self/fd.
#include "sandbox.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <net/if.h>
#include <optional>
#include <sched.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sandbox {

namespace {

namespace fs = std::filesystem;

struct covered {
    const char *directory;
    const char *mode;
};
constexpr std::array<covered, 5> covered_directories = {{
    {"/dev", "mode=0755"},
    {"/dev/shm", "mode=1777"},
    {"/var/log", "mode=0755"},
    {"/var/tmp", "mode=1777"},
    {"/mnt", "mode=0755"},
}};

constexpr std::array<const char *, 7> devices = {
    "/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty", "/dev/pts",
};

// An error of one step, with the reason that the system gave.
std::string failure(const std::string &step)
{
    return step + ": " + std::generic_category().message(errno);
}

bool directory_exists(const fs::path &path)
{
    std::error_code unreadable;
    return fs::is_directory(path, unreadable);
}

// A file or directory that is bound back to its path after that has been covered.
class original {
public:
    explicit original(std::string path)
        : path_(std::move(path)), descriptor_(open(path_.c_str(), O_PATH | O_CLOEXEC))
    {
    }
    original(original &&other) noexcept
        : path_(std::move(other.path_)), descriptor_(std::exchange(other.descriptor_, -1))
    {
    }
    original(const original &) = delete;
    original &operator=(const original &) = delete;
    original &operator=(original &&) = delete;
    ~original()
    {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }

    [[nodiscard]] bool exists() const { return descriptor_ >= 0; }

    [[nodiscard]] bool bind_back(std::string &error) const
    {
        struct stat status {};
        if (fstat(descriptor_, &status) != 0) {
            error = failure(path_);
            return false;
        }
        if (S_ISDIR(status.st_mode)) {
            (void)mkdir(path_.c_str(), 0755);
        } else {
            const int file = open(path_.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (file >= 0) {
                close(file);
            }
        }
        const std::string source = "/proc/self/fd/" + std::to_string(descriptor_);
        if (mount(source.c_str(), path_.c_str(), "", MS_BIND | MS_REC, nullptr) != 0) {
            error = failure("cannot bring back " + path_);
            return false;
        }
        return true;
    }

private:
    std::string path_;
    int descriptor_;
};

// What stands right below a covered directory and leads to `path`, if `path` lies in such a one.
std::optional<std::string> hidden_way_to(const fs::path &path)
{
    for (const covered &each : covered_directories) {
        const fs::path base = each.directory;
        const auto [end, rest] = std::mismatch(base.begin(), base.end(), path.begin(), path.end());
        const bool is_dev = base == "/dev"; // holds devices, never anybody's files
        if (end == base.end() && rest != path.end() && !is_dev) {
            const fs::path way = base / *rest;
            std::error_code unreadable;
            if (fs::exists(way, unreadable)) {
                return way.string();
            }
        }
    }
    return std::nullopt;
}

// What would be hidden although the program needs it.
std::vector<std::string> hidden_ways(const std::vector<std::string> &wanted)
{
    std::error_code unreadable;
    std::vector<fs::path> paths = {fs::current_path(unreadable),
                                   fs::read_symlink("/proc/self/exe", unreadable)};
    for (const std::string &path : wanted) {
        paths.push_back(fs::weakly_canonical(path, unreadable));
    }
    std::vector<std::string> ways;
    for (const fs::path &path : paths) {
        const std::optional<std::string> way = hidden_way_to(path);
        if (way && std::find(ways.begin(), ways.end(), *way) == ways.end()) {
            ways.push_back(*way);
        }
    }
    return ways;
}

bool write_file(const char *path, const std::string &text, std::string &error)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    const bool written =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written) {
        error = failure(std::string("cannot write ") + path);
    }
    if (file >= 0) {
        close(file);
    }
    return written;
}

// Makes the calling user root of a new user namespace.
bool map_user(uid_t user, gid_t group, std::string &error)
{
    return write_file("/proc/self/setgroups", "deny", error) &&
           write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1", error) &&
           write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1", error);
}

bool new_namespaces(const options &wanted, std::string &error)
{
    const int kinds = CLONE_NEWNS | CLONE_NEWIPC | (wanted.network ? CLONE_NEWNET : 0);
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | kinds) == 0) {
        return map_user(user, group, error);
    }
    if (user != 0) {
        error = failure("cannot make a user namespace (is kernel.unprivileged_userns_clone or "
                        "user.max_user_namespaces 0?)");
        return false;
    }
    if (unshare(kinds) != 0) {
        error = failure("cannot make mount and IPC namespaces, not even as root");
        return false;
    }
    return true;
}

bool cover(const covered &each, std::string &error)
{
    if (mount("tmpfs", each.directory, "tmpfs", MS_NOSUID, each.mode) != 0) {
        error = failure(std::string("cannot cover ") + each.directory);
        return false;
    }
    return true;
}

bool make_device_links(std::string &error)
{
    constexpr std::array<std::array<const char *, 2>, 4> links = {{
        {"/proc/self/fd", "/dev/fd"},
        {"/proc/self/fd/0", "/dev/stdin"},
        {"/proc/self/fd/1", "/dev/stdout"},
        {"/proc/self/fd/2", "/dev/stderr"},
    }};
    for (const auto &[target, link] : links) {
        if (symlink(target, link) != 0) {
            error = failure(std::string("cannot make ") + link);
            return false;
        }
    }
    return true;
}

bool cover_directories(const options &wanted, std::string &error)
{
    if (mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0) {
        error = failure("cannot make the mounts private");
        return false;
    }
    std::vector<original> originals;
    originals.reserve(devices.size());
    for (const char *device : devices) {
        originals.emplace_back(device);
    }
    for (std::string &way : hidden_ways(wanted.keep)) {
        originals.emplace_back(std::move(way));
    }
    for (const covered &each : covered_directories) {
        if (std::string_view(each.directory) == "/dev/shm") {
            (void)mkdir(each.directory, 0755); // in the new /dev
        }
        if (directory_exists(each.directory) && !cover(each, error)) {
            return false;
        }
    }
    for (const original &each : originals) {
        if (each.exists() && !each.bind_back(error)) {
            return false;
        }
    }
    return make_device_links(error);
}

bool set_loopback_up(std::string &error)
{
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    bool up = handle >= 0 && ioctl(handle, SIOCGIFFLAGS, &request) == 0;
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        up = ioctl(handle, SIOCSIFFLAGS, &request) == 0;
    }
    if (!up) {
        error = failure("cannot set the loopback interface up");
    }
    if (handle >= 0) {
        close(handle);
    }
    return up;
}

} // namespace

bool enter(const options &wanted, std::string &error)
{
    if (!new_namespaces(wanted, error) || !cover_directories(wanted, error)) {
        return false;
    }
    if (!wanted.network) {
        return true;
    }
    // /sys shows the interfaces of the namespace that it was mounted in. Where a container forbids
    // a mount of it, the old one stays; interfaces can then be seen through /proc/net only.
    (void)mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    return set_loopback_up(error);
}

} // namespace sandbox
