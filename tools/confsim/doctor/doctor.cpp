// The table of checks, and the two forms of a report. See doctor.h.
#include "doctor/doctor.h"

#include "doctor/checks.h"
#include "doctor/processes.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <glob.h>
#include <iterator>
#include <link.h>
#include <ostream>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace confsim::doctor {

namespace {

// In an order in which each one finds what it builds upon.
constexpr findings (*checks[])(facts &) = {
    check_profile,    check_sockets,    check_listeners, check_answer,    check_table,
    check_debug_file, check_system_log, check_copies,    check_processes,
};

// Names of files can hold anything, but a finding is one line.
std::string one_line(std::string text)
{
    for (char &c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
            c = '?';
        }
    }
    return text;
}

std::string own_library()
{
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info *object, std::size_t, void *result) {
            if (std::strstr(object->dlpi_name, "/libconfsvc.so") == nullptr) {
                return 0;
            }
            *static_cast<std::string *>(result) = object->dlpi_name;
            return 1;
        },
        &found);
    return found;
}

void add_configured(const char *pattern, std::vector<std::string> &directories)
{
    glob_t matches{};
    if (glob(pattern, 0, nullptr, &matches) == 0) {
        for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
            std::ifstream file(matches.gl_pathv[i]);
            for (std::string line; std::getline(file, line);) {
                if (line.starts_with('/')) {
                    directories.push_back(line.substr(0, line.find_first_of(" \t#")));
                }
            }
        }
    }
    globfree(&matches);
}

std::vector<std::string> loader_directories()
{
    std::vector<std::string> directories;
    if (const char *wanted = std::getenv("LD_LIBRARY_PATH")) {
        std::istringstream list(wanted);
        for (std::string each; std::getline(list, each, ':');) {
            directories.push_back(each.empty() ? "." : each);
        }
    }
    add_configured("/etc/ld.so.conf", directories);
    add_configured("/etc/ld.so.conf.d/*.conf", directories);
    directories.insert(directories.end(), {"/lib", "/usr/lib"});
    return directories;
}

} // namespace

std::string quoted(const std::string &word)
{
    constexpr const char *plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "/._-+:,@%";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) {
        return word;
    }
    std::string made = "'";
    for (const char c : word) {
        made += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return made + "'";
}

std::string system_error_text()
{
    return std::generic_category().message(errno);
}

bool may(const std::string &path, int mode)
{
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string start_command(const std::string &directory)
{
    return "confsim --dir " + quoted(directory.empty() ? "/var/tmp" : directory);
}

std::string revival(int id, const std::string &directory)
{
    if (id <= 0) {
        return start_command(directory);
    }
    const std::string number = std::to_string(id);
    return is_stopped(id) ? "kill -CONT " + number
                          : "kill " + number + "; sleep 1; " + start_command(directory);
}

facts facts_here(const std::string &directory)
{
    facts here;
    here.directory = directory;
    here.library = own_library();
    here.loader_path = loader_directories();
    return here;
}

findings examine(facts &here)
{
    findings all;
    for (const auto check : checks) {
        findings some = check(here);
        std::move(some.begin(), some.end(), std::back_inserter(all));
    }
    return all;
}

void print(std::ostream &out, const facts &here, const findings &found)
{
    for (const std::string &note : here.notes) {
        out << "* " << one_line(note) << '\n';
    }
    for (const finding &each : found) {
        out << one_line(each.name + ": " + each.text + " -> " + each.command) << '\n';
    }
    if (found.empty()) {
        out << "nothing is wrong\n";
    }
}

void print_json(std::ostream &out, const facts &here, const findings &found)
{
    nlohmann::ordered_json report = {{"sound", found.empty()},
                                     {"directory", here.directory},
                                     {"findings", nlohmann::ordered_json::array()},
                                     {"notes", here.notes}};
    for (const finding &each : found) {
        report["findings"].push_back(
            {{"name", each.name}, {"text", each.text}, {"command", each.command}});
    }
    // Bytes that are no UTF-8 are replaced.
    out << report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

} // namespace confsim::doctor
