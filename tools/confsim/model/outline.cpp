// See outline.h.
#include "model/outline.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace confsim {

namespace {

struct outlined {
    std::size_t column;
    std::string name; // empty for a choice or a case, which stand in no path
};

// A line like "|  +--rw prefix:name* [key]  type"; none that marks a node gives npos.
outlined read_line(const std::string &line)
{
    const std::size_t column = line.find("+--");
    if (column == std::string::npos) {
        return {column, ""};
    }
    const std::size_t begin = std::min(line.find(' ', column), line.size() - 1) + 1;
    const std::string name = line.substr(begin, line.find_first_of(" ?*!@/", begin) - begin);
    if (line[column + 3] == ':' || name.starts_with('(')) {
        return {column, ""};
    }
    return {column, name.substr(name.find(':') + 1)}; // npos + 1 is 0
}

} // namespace

std::string part_of_outline(const std::string &text, const path &where)
{
    std::istringstream lines(text);
    std::string part;
    std::vector<outlined> open; // the nodes around a line, and its own
    for (std::string line; std::getline(lines, line);) {
        const outlined here = read_line(line);
        if (here.column == std::string::npos) {
            if (line.empty() && !part.empty()) {
                break; // what follows are operations, and what goes into other modules
            }
            continue;
        }
        while (!open.empty() && open.back().column >= here.column) {
            open.pop_back();
        }
        open.push_back(here);
        std::size_t steps = 0;
        const bool is_on_the_way = std::all_of(open.begin(), open.end(), [&](const outlined &each) {
            return each.name.empty() || steps >= where.size() || each.name == where[steps++].name;
        });
        if (is_on_the_way && (!here.name.empty() || steps >= where.size())) {
            part += line + "\n";
        }
    }
    return part;
}

} // namespace confsim
