// See error_watch.h.
#include "watch/error_watch.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace confsim {

namespace {

constexpr const char *address_name = "/var/tmp/.confsim-watch"; // in the sandbox
constexpr std::size_t most_of_message = 2048;

int opened(const char *name)
{
    const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name, sizeof address.sun_path - 1);
    const bool is_good =
        made >= 0 && setsockopt(made, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) == 0 &&
        bind(made, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        chmod(name, 0777) == 0; // a plugin may have become another user
    if (!is_good && made >= 0) {
        close(made);
    }
    return is_good ? made : -1;
}

void put_in_front(const char *variable, const std::string &value)
{
    const char *given = std::getenv(variable);
    setenv(variable, (value + (given == nullptr ? "" : std::string(":") + given)).c_str(), 1);
}

} // namespace

error_watch::~error_watch()
{
    if (socket_ >= 0) {
        close(socket_);
        unlink(address_name);
    }
}

std::string error_watch::library()
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    for (const char *directory : {"watch", CONFSIM_WATCH_DIRECTORY}) { // built, or installed
        const fs::path file = fs::weakly_canonical(here / directory / "libconfsim-watch.so", error);
        if (fs::exists(file, error)) {
            return file;
        }
    }
    return "";
}

void error_watch::begin(const std::string &library)
{
    if (library.empty() || access(library.c_str(), R_OK) != 0) {
        return;
    }
    socket_ = opened(address_name);
    if (socket_ >= 0) {
        setenv("CONFSIM_WATCH", address_name, 1);
        put_in_front("LD_PRELOAD", library);
        // Sanitizers insist on being the first; the library does nothing that they look at.
        put_in_front("ASAN_OPTIONS", "verify_asan_link_order=0");
    }
}

std::optional<std::string> error_watch::taken(const std::string &process)
{
    receive_all();
    // "12 (2 inside)" in a namespace.
    auto found = recorded_.extract(process.substr(0, process.find(' ')));
    return found.empty() ? std::nullopt : std::optional(std::move(found.mapped()));
}

void error_watch::receive_all()
{
    std::array<char, most_of_message> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    int code = 0;
    while (socket_ >= 0) {
        std::array<iovec, 2> parts = {{{&code, sizeof code}, {text.data(), text.size()}}};
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t length = recvmsg(socket_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (length < static_cast<ssize_t>(sizeof code)) {
            return;
        }
        const cmsghdr *header = CMSG_FIRSTHDR(&message);
        if (header != nullptr && header->cmsg_type == SCM_CREDENTIALS) {
            ucred sender{};
            std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
            recorded_[std::to_string(sender.pid)] =
                "code " + std::to_string(code) + ": " +
                std::string(text.data(), static_cast<std::size_t>(length) - sizeof code);
        }
    }
}

} // namespace confsim
