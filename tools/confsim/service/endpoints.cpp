// See endpoints.h.
#include "service/endpoints.h"

#include "conf_plugin.h"
#include "failure.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace confsim {

namespace {

namespace fs = std::filesystem;

constexpr const char *profile = "/dev/shm/yang_modules/confd.conf";
constexpr std::size_t longest_socket_path = sizeof(sockaddr_un::sun_path) - 1;

std::string json_string(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + '"';
}

std::string system_error_text()
{
    return std::generic_category().message(errno);
}

} // namespace

bool somebody_listens(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, longest_socket_path);
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool connected =
        connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN; // its queue is full
    close(probe);
    return connected;
}

endpoints::endpoints(const std::string &directory)
{
    if (conf_load_config(nullptr) == 0 && somebody_listens(g_conf_plugin_socket)) {
        throw failure(std::string(profile) + " belongs to a daemon that is alive, at " +
                      fs::path(g_conf_plugin_socket).parent_path().string());
    }
    try {
        make_directory(directory);
        if (somebody_listens(directory_ + "/confd.plugin.socket")) {
            throw failure("another daemon is alive in " + directory_);
        }
        write_profile();
        open();
    } catch (...) {
        remove();
        throw;
    }
}

endpoints::~endpoints()
{
    remove();
}

void endpoints::make_directory(const std::string &wanted)
{
    if (wanted.empty()) {
        std::string pattern = (fs::temp_directory_path() / "confsim-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw failure("cannot make a directory " + pattern + ": " + system_error_text());
        }
        directory_ = pattern;
        made_directory_ = true;
    } else {
        std::error_code error;
        made_directory_ = fs::create_directories(wanted, error);
        if (error) {
            throw failure("cannot make the directory " + wanted + ": " + error.message());
        }
        directory_ = fs::canonical(wanted).string();
    }
    if ((directory_ + "/confd.notifier.socket").size() > longest_socket_path) {
        throw failure("the name of the directory is too long for socket files: " + directory_);
    }
}

void endpoints::write_profile()
{
    std::error_code ignored; // the file cannot be opened then
    made_profile_directory_ = fs::create_directories(fs::path(profile).parent_path(), ignored);
    std::ofstream file(profile, std::ios::trunc);
    file << "{\"working-dir\": " << json_string(directory_) << "}\n";
    file.close();
    if (!file) {
        throw failure(std::string("cannot write ") + profile + ": " + system_error_text());
    }
    wrote_profile_ = true;
    if (conf_load_config(nullptr) != 0) {
        throw failure(std::string("cannot read back ") + profile);
    }
}

void endpoints::open()
{
    plugin_socket_ = conf_plugin_service_enable();
    agent_socket_ = conf_agent_service_enable();
    notifier_socket_ = conf_plugin_notifier_enable();
    if (plugin_socket_ < 0 || agent_socket_ < 0 || notifier_socket_ < 0) {
        throw failure("cannot open the sockets in " + directory_ + ": " + system_error_text());
    }
}

void endpoints::close()
{
    conf_plugin_service_disable(std::exchange(plugin_socket_, -1));
    conf_agent_service_disable(std::exchange(agent_socket_, -1));
    conf_plugin_notifier_disable(std::exchange(notifier_socket_, -1));
}

void endpoints::spoil_profile()
{
    std::ofstream file(profile, std::ios::trunc);
    file << "{\"working-dir\": ";
    file.close();
    if (!file) {
        throw failure(std::string("cannot write ") + profile + ": " + system_error_text());
    }
}

void endpoints::remove()
{
    if (wrote_profile_) {
        close();
        unlink(profile);
    }
    if (made_profile_directory_) {
        rmdir(fs::path(profile).parent_path().c_str());
    }
    if (made_directory_) {
        rmdir(directory_.c_str());
    }
}

} // namespace confsim
