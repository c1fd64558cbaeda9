// See report.h.
#include "report.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

namespace fault {

namespace {

const std::string indent = "    ";

struct numbered {
    std::string name;
    int number;
};

numbered split(const std::string &call)
{
    const std::size_t mark = call.find('#');
    return {call.substr(0, mark), mark == std::string::npos ? 0 : std::stoi(call.substr(mark + 1))};
}

// Allocations inside libxml2 are as many as its version makes.
bool has_numbers(const std::string &name)
{
    return name != "allocation" && name != "story";
}

// "malloc#1,3-5 strdup#2"
std::string list_of(const std::vector<std::string> &calls)
{
    std::vector<std::pair<std::string, std::vector<int>>> names;
    for (const std::string &call : calls) {
        const numbered each = split(call);
        auto known = std::find_if(names.begin(), names.end(),
                                  [&](const auto &name) { return name.first == each.name; });
        if (known == names.end()) {
            known = names.insert(names.end(), {each.name, {}});
        }
        known->second.push_back(each.number);
    }
    std::string text;
    for (const auto &[name, numbers] : names) {
        text += (text.empty() ? "" : " ") + name;
        for (std::size_t first = 0; has_numbers(name) && first < numbers.size();) {
            std::size_t last = first;
            while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) {
                ++last;
            }
            text += (first == 0 ? "#" : ",") + std::to_string(numbers[first]);
            text += last > first ? "-" + std::to_string(numbers[last]) : "";
            first = last + 1;
        }
    }
    return text;
}

std::string lines_of(std::string outcome)
{
    std::replace(outcome.begin(), outcome.end(), step_end, '\n');
    return outcome;
}

std::string statement(const std::string &kind, const std::string &call, const std::string &outcome)
{
    const std::string name = split(call).name;
    return kind + ": " + (has_numbers(name) ? call : name) + '\n' + outcome;
}

} // namespace

std::string joined(const std::vector<std::string> &steps)
{
    std::string text;
    for (const std::string &step : steps) {
        text += (text.empty() ? "" : std::string(1, step_end)) + step;
    }
    return text;
}

std::string report(const std::vector<result> &results)
{
    std::vector<std::pair<std::string, std::map<std::string, std::vector<std::string>>>> groups;
    for (const result &each : results) {
        auto known = std::find_if(groups.begin(), groups.end(),
                                  [&](const auto &group) { return group.first == each.outcome; });
        if (known == groups.end()) {
            known = groups.insert(groups.end(), {each.outcome, {}});
        }
        known->second[each.kind].push_back(each.call);
    }
    std::string text;
    for (const auto &[outcome, kinds] : groups) {
        std::map<std::string, std::string> kinds_of; // by list of calls
        for (const auto &[kind, calls] : kinds) {
            std::string &known = kinds_of[list_of(calls)];
            known = (known.empty() ? "" : kind + ", ") + (known.empty() ? kind : known);
        }
        text += (text.empty() ? "" : "\n") + lines_of(outcome) + '\n';
        for (const auto &[calls, kind] : kinds_of) {
            text += indent + kind + ": " + calls + '\n';
        }
    }
    return text;
}

std::set<std::string> statements(const std::vector<result> &results)
{
    std::set<std::string> texts;
    for (const result &each : results) {
        texts.insert(statement(each.kind, each.call, lines_of(each.outcome)));
    }
    return texts;
}

std::set<std::string> statements(const std::string &report)
{
    std::set<std::string> texts;
    std::string outcome;
    bool complete = false; // points have followed
    std::istringstream input(report);
    for (std::string line; std::getline(input, line);) {
        if (!line.starts_with(indent)) {
            outcome = complete || outcome.empty() ? line : outcome + '\n' + line;
            complete = false;
            continue;
        }
        complete = true;
        const std::size_t colon = line.find(": ");
        std::istringstream kinds(line.substr(indent.size(), colon - indent.size()));
        for (std::string kind; std::getline(kinds >> std::ws, kind, ',');) {
            std::istringstream calls(line.substr(colon + 2));
            for (std::string call; calls >> call;) {
                const std::size_t mark = call.find('#');
                if (mark == std::string::npos) {
                    texts.insert(statement(kind, call, outcome));
                    continue;
                }
                std::istringstream ranges(call.substr(mark + 1));
                for (std::string range; std::getline(ranges, range, ',');) {
                    const std::size_t dash = range.find('-');
                    const int first = std::stoi(range);
                    const int last =
                        dash == std::string::npos ? first : std::stoi(range.substr(dash + 1));
                    for (int number = first; number <= last; ++number) {
                        const std::string name = call.substr(0, mark + 1) + std::to_string(number);
                        texts.insert(statement(kind, name, outcome));
                    }
                }
            }
        }
    }
    return texts;
}

} // namespace fault
