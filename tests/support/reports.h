// What the library reports to the system log, as one text, and the check of a wrong call.
#ifndef CONFSVC_TEST_REPORTS_H
#define CONFSVC_TEST_REPORTS_H

#include "test_support.h"

#include <string>
#include <string_view>
#include <vector>

namespace test {

// What has been reported since the last look (at most ten messages, then the log blocks), one line
// each: the text of an error, or "<12>[WARN]
// text" and the like.
inline std::string take_reports()
{
    constexpr std::string_view error = "<11>[ERROR] ";
    std::string all;
    for (const std::string &text : take_system_texts()) {
        all += (text.starts_with(error) ? text.substr(error.size()) : text) + "\n";
    }
    return all;
}

// Checks what a wrong call returned and reported. "(name=%)." stands for the usual "Error input
// parameter(name=0x1234)." with the next of the pointers, "" for no report.
inline void refused(long result, long expected, std::string report,
                    const std::vector<const void *> &pointers = {})
{
    for (const void *pointer : pointers) {
        report.replace(report.find('%'), 1, place(pointer));
    }
    const bool is_usual = report.starts_with('(') || report.starts_with('.');
    report = (is_usual ? "Error input parameter" : "") + report + (report.empty() ? "" : "\n");
    EXPECT_EQ(result, expected) << report;
    EXPECT_EQ(take_reports(), report);
}

} // namespace test

#endif
