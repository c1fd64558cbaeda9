// Is the profile there, who may read it, and what does it name? The library itself reads it, so the
// answer is the one that plugins get.
#include "conf_plugin.h"
#include "doctor/checks.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace confsim::doctor {

namespace {

constexpr const char *profile_directory = "/dev/shm/yang_modules";
const std::string profile = std::string(profile_directory) + "/confd.conf";

struct released {
    void operator()(char *text) const { free(text); }
};

// Has the profile name the directory that is asked for. Without one, only a daemon knows its own.
std::string rewriting(const facts &here)
{
    if (here.directory.empty()) {
        return start_command("");
    }
    const nlohmann::json text = {{"working-dir", here.directory}};
    return std::string("sudo mkdir -p ") + profile_directory + " && echo " + quoted(text.dump()) +
           " | sudo tee " + profile;
}

findings unreadable(const facts &here, int cause)
{
    if (cause == ENOENT) {
        return {{"profile-missing", profile + " does not exist: no daemon has started",
                 rewriting(here)}};
    }
    if (cause == EACCES) {
        const bool inside = may(profile_directory, X_OK);
        return {{"profile-forbidden", "this user may not read " + profile,
                 inside ? "sudo chmod a+r " + profile
                        : std::string("sudo chmod a+rx ") + profile_directory}};
    }
    return {{"profile-unreadable", profile + " cannot be read: " + system_error_text(),
             rewriting(here)}};
}

// What the directory of the sockets must be like.
findings check_directory(const std::string &directory)
{
    if (!directory.starts_with('/')) {
        return {
            {"directory-relative",
             "the profile names " + quoted(directory) + ", which is another place for each program",
             start_command("")}};
    }
    if (directory.size() + sizeof "/confd.notifier.socket" > sizeof sockaddr_un{}.sun_path) {
        return {{"directory-too-long",
                 "the names of sockets in " + directory + " are cut: they have " +
                     std::to_string(sizeof sockaddr_un{}.sun_path - 1) + " characters at most",
                 start_command("")}};
    }
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0 && errno == EACCES) {
        return {{"directory-forbidden", "this user may not look for " + directory,
                 "sudo namei -l " + quoted(directory)}};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {
            {"directory-missing", "there is no directory " + directory, start_command(directory)}};
    }
    if (!may(directory, X_OK)) {
        return {{"directory-forbidden", "this user may not look into " + directory,
                 "sudo chmod a+x " + quoted(directory)}};
    }
    return {};
}

// Checks the profile as a file; `named` becomes the directory that it names.
findings check_file(const facts &here, std::string &named)
{
    const int file = open(profile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        return unreadable(here, errno);
    }
    struct stat status {};
    (void)fstat(file, &status);
    close(file);
    char *text = nullptr;
    const int loaded = conf_load_config(&text);
    const std::unique_ptr<char, released> directory(text);
    if (loaded != 0) {
        return {{"profile-invalid", profile + " is empty or no JSON", rewriting(here)}};
    }
    if (directory == nullptr) {
        return {{"profile-names-nothing",
                 profile + " has no member \"working-dir\" that is a string", rewriting(here)}};
    }
    named = directory.get();
    if ((status.st_mode & S_IWOTH) != 0) {
        return {{"profile-writable", "everybody may send plugins elsewhere by " + profile,
                 "sudo chmod o-w " + profile}};
    }
    return {};
}

} // namespace

findings check_profile(facts &here)
{
    std::string named;
    findings found = check_file(here, named);
    if (!here.directory.empty() && !named.empty() && named != here.directory) {
        found.push_back({"profile-names-other",
                         "plugins are sent to " + named + ", not to " + here.directory,
                         rewriting(here)});
    } else if (here.directory.empty()) {
        here.directory = named;
    }
    if (here.directory.empty() && !found.empty()) {
        return found; // the sockets can be anywhere
    }
    findings more = check_directory(here.directory);
    if (!more.empty()) {
        here.directory.clear(); // nothing can be looked for in there
        found.insert(found.end(), more.begin(), more.end());
    }
    return found;
}

} // namespace confsim::doctor
