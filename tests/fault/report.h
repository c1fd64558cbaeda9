// The outcomes of a scenario as a text to be read and kept: grouped by outcome, each with the
// faults that lead to it. The form is described at the top of driver.cpp.
#ifndef CONFSVC_FAULT_REPORT_H
#define CONFSVC_FAULT_REPORT_H

#include <set>
#include <string>
#include <vector>

namespace fault {

inline constexpr char step_end = '\2'; // between the steps of an outcome

struct result {
    std::string kind;
    std::string call;    // "malloc#3"
    std::string outcome; // steps
};

std::string joined(const std::vector<std::string> &steps);

std::string report(const std::vector<result> &results);

// What a report says, one text for each fault, which can be compared.
std::set<std::string> statements(const std::vector<result> &results);
std::set<std::string> statements(const std::string &report);

} // namespace fault

#endif
