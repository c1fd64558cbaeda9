// What the tests share: a look at both logs, at open descriptors and at XML text; and the check of
// a wrong call.
//
// Every test program runs inside namespaces of its own (see main.cpp), so the fixed paths of the
// library, its sockets and the system log are private to it and empty at the start.
#ifndef CONFSVC_TEST_SUPPORT_H
#define CONFSVC_TEST_SUPPORT_H

#include "conf_debug.h"
#include "support/owners.h"

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

using strings = std::vector<std::string>;

// Opens the socket that stands at /dev/log inside the sandbox; false with errno when that fails.
bool open_system_log();

// The lines of the debug file since it was last cleared, without time stamp and line end:
// "[ERROR] - text".
strings debug_lines();

// The same, reduced to one level's texts: debug_texts(DBG_ERROR).
strings debug_texts(int level);

void clear_debug_file();

// The texts at DBG_ERROR, joined by line ends, with the numbers of epoll events replaced by "0x?";
// clears the file.
std::string take_errors();

// What has reached the system log since the last call, one entry a message: "<11>text" with the
// priority as sent; time and program name are removed.
strings take_system_log();

// The texts of take_system_log() without the position: "<11>[ERROR] text".
strings take_system_texts();

// The same as one text, with a line end behind each, and errors without what stands in front. At
// most ten messages may come between two looks, then the log blocks.
std::string take_reports();

// Checks what a wrong call returned and reported to the system log. "(name=%)." stands for the
// usual "Error input parameter(name=0x1234)." with the next of the pointers, "" for no report.
void refused(long result, long expected, std::string report,
             const std::vector<const void *> &pointers = {});

// The number of open descriptors of this process.
int open_descriptors();

// A pointer as the logs show it.
std::string place(const void *pointer);

// Parses and prints one element; parse() gives a tree that belongs to no document, print() gives ""
// for null, and so does list_of(), for a list of siblings.
xmlNode *parse(const std::string &text);
std::string print(xmlNode *node);
std::string list_of(const xmlNode *node);

// Base of all fixtures: debug file on at the most verbose level and empty, system log empty, and
// afterwards as many descriptors as before.
class Fixture : public ::testing::Test {
protected:
    Fixture();
    ~Fixture() override;

private:
    int descriptors_before_;
};

} // namespace test

#endif
