// Which copies of the library are there: on the loader's path, and in the processes that run?
//
// Copies with the same content are one. The interface that a copy has is told by the names of its
// version nodes, which stand in its table of strings between zero bytes.
#include "doctor/checks.h"
#include "doctor/processes.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

namespace confsim::doctor {

namespace {

namespace fs = std::filesystem;

constexpr const char *file_name = "libconfsvc.so.1";
constexpr const char *replaced = " (deleted)";

std::string content_of(const std::string &file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::set<std::string> interfaces_in(const std::string &content)
{
    const std::string begin = std::string(1, '\0') + "CONFSVC_";
    std::set<std::string> found;
    for (std::size_t at = content.find(begin); at != std::string::npos;
         at = content.find(begin, at + 1)) {
        const std::size_t end = content.find('\0', at + 1);
        const std::string name = content.substr(at + 1, end - at - 1);
        if (name.find_first_not_of("0123456789.", begin.size() - 1) == std::string::npos) {
            found.insert(name);
        }
    }
    return found;
}

// What a copy lacks of the interfaces of this program's own library.
std::string lacking(const std::string &copy, const std::string &own)
{
    const std::set<std::string> has = interfaces_in(copy);
    std::string list;
    for (const std::string &each : interfaces_in(own)) {
        list += has.contains(each) ? "" : " " + each;
    }
    return list;
}

// What is wrong with another copy, when it is found instead of the library that this program has.
findings compare(const std::string &copy, const facts &here, const std::string &own)
{
    const std::string content = content_of(copy);
    const std::string command = "sudo rm " + quoted(copy) + " && sudo ldconfig";
    if (content.empty()) {
        return {{"library-unreadable", "this user may not read " + copy,
                 "sudo chmod a+r " + quoted(copy)}};
    }
    const std::string missing = lacking(content, own);
    if (!missing.empty()) {
        return {{"library-too-old", copy + " has no" + missing + ", as " + here.library + " does",
                 command}};
    }
    if (content != own) {
        return {
            {"library-copies", "plugins may get " + copy + " instead of " + here.library, command}};
    }
    return {};
}

} // namespace

findings check_copies(facts &here)
{
    if (here.library.empty()) {
        return {};
    }
    const std::string own = content_of(here.library);
    std::set<std::string> seen;
    findings found;
    for (const std::string &directory : here.loader_path) {
        std::error_code missing;
        const std::string copy = fs::canonical(fs::path(directory) / file_name, missing).string();
        if (!copy.empty() && seen.insert(copy).second) {
            findings some = compare(copy, here, own);
            std::move(some.begin(), some.end(), std::back_inserter(found));
        }
    }
    return found;
}

findings check_processes(facts &here)
{
    const std::string own = here.library.empty() ? "" : content_of(here.library);
    findings found;
    for (const int id : processes_here()) {
        const std::vector<std::string> loaded = loaded_libraries(id);
        const std::string command = "kill " + std::to_string(id);
        if (loaded.size() > 1) {
            found.push_back({"library-twice",
                             process_text(id) + " has loaded both " + loaded[0] + " and " +
                                 loaded[1] + ", which know nothing of each other",
                             command});
        } else if (loaded.size() == 1 && loaded[0].ends_with(replaced)) {
            found.push_back(
                {"library-replaced",
                 process_text(id) + " runs with a library that was replaced since: " + loaded[0],
                 command});
        } else if (loaded.size() == 1 && !own.empty() && content_of(loaded[0]) != own) {
            found.push_back(
                {"library-differs",
                 process_text(id) + " has loaded " + loaded[0] + ", not " + here.library, command});
        }
    }
    return found;
}

} // namespace confsim::doctor
