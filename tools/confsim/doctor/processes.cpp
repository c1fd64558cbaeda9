// See processes.h.
#include "doctor/processes.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

namespace confsim::doctor {

namespace {

namespace fs = std::filesystem;

constexpr unsigned long takes_connections = 0x10000; // __SO_ACCEPTCON of the kernel
constexpr int datagram = 2;

fs::path directory_of(int id)
{
    return fs::path("/proc") / std::to_string(id);
}

std::string link_text(const fs::path &link)
{
    std::error_code unreadable;
    return fs::read_symlink(link, unreadable).string();
}

// "socket:[INODE]" of each that was bound to the path and is no single connection.
std::set<std::string> sockets_at(const std::string &path)
{
    std::set<std::string> found;
    std::ifstream table("/proc/net/unix");
    std::string line;
    std::getline(table, line); // the heading
    while (std::getline(table, line)) {
        std::istringstream columns(line);
        std::string address;
        std::string references;
        std::string protocol;
        unsigned long flags = 0;
        int type = 0;
        int state = 0;
        unsigned long inode = 0;
        std::string name;
        columns >> address >> references >> protocol >> std::hex >> flags >> type >> state >>
            std::dec >> inode >> std::ws;
        std::getline(columns, name);
        if (name == path && ((flags & takes_connections) != 0 || type == datagram)) {
            found.insert("socket:[" + std::to_string(inode) + "]");
        }
    }
    return found;
}

bool holds_one_of(int id, const std::set<std::string> &sockets)
{
    std::error_code unreadable;
    fs::directory_iterator each(directory_of(id) / "fd", unreadable);
    for (; each != fs::directory_iterator(); each.increment(unreadable)) {
        if (sockets.contains(link_text(each->path()))) {
            return true;
        }
    }
    return false;
}

} // namespace

std::vector<int> processes_here()
{
    const std::string own = link_text("/proc/self/ns/mnt");
    std::vector<int> found;
    std::error_code unreadable;
    fs::directory_iterator each("/proc", unreadable);
    for (; each != fs::directory_iterator(); each.increment(unreadable)) {
        const std::string name = each->path().filename().string();
        int id = 0;
        const auto end = name.data() + name.size();
        if (std::from_chars(name.data(), end, id).ptr == end && !own.empty() &&
            link_text(each->path() / "ns/mnt") == own) {
            found.push_back(id);
        }
    }
    return found;
}

std::string process_text(int id)
{
    std::string name;
    std::ifstream file(directory_of(id) / "comm");
    std::getline(file, name);
    return "process " + std::to_string(id) + (name.empty() ? "" : " (" + name + ")");
}

bool is_stopped(int id)
{
    std::ifstream file(directory_of(id) / "stat");
    std::string line;
    std::getline(file, line);
    const std::size_t name_end = line.rfind(')'); // the name itself can hold anything
    return name_end != std::string::npos && name_end + 2 < line.size() &&
           (line[name_end + 2] == 'T' || line[name_end + 2] == 't');
}

std::vector<std::string> loaded_libraries(int id)
{
    std::vector<std::string> found;
    std::ifstream maps(directory_of(id) / "maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        if (path == std::string::npos || line.find("/libconfsvc.so", path) == std::string::npos) {
            continue;
        }
        std::string file = line.substr(path);
        if (std::find(found.begin(), found.end(), file) == found.end()) {
            found.push_back(std::move(file));
        }
    }
    return found;
}

std::vector<int> holders_of_socket(const std::string &path)
{
    const std::set<std::string> sockets = sockets_at(path);
    std::vector<int> found;
    if (!sockets.empty()) {
        for (const int id : processes_here()) {
            if (holds_one_of(id, sockets)) {
                found.push_back(id);
            }
        }
    }
    return found;
}

} // namespace confsim::doctor
