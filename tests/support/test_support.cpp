// See test_support.h. Relies on the sandbox that main.cpp enters: /dev/log is a socket of ours.
#include "test_support.h"

#include <libxml/parser.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>

namespace test {

namespace {

constexpr const char *debug_file = "/var/log/conf_plugin.log";
constexpr std::size_t stamp_length = 19;

int log_socket = -1;

} // namespace

bool open_system_log()
{
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int room = 4 << 20;
    (void)setsockopt(log_socket, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    (void)setsockopt(log_socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    return bind(log_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

strings debug_lines()
{
    strings lines;
    std::ifstream file(debug_file, std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        line.erase(line.find_last_not_of('\r') + 1);
        lines.push_back(line.size() > stamp_length ? line.substr(stamp_length) : line);
    }
    return lines;
}

strings debug_texts(int level)
{
    const std::string tag = std::string("[") + g_debug_desc[level] + "] - ";
    strings texts;
    for (const std::string &line : debug_lines()) {
        if (line.starts_with(tag)) {
            texts.push_back(line.substr(tag.size()));
        }
    }
    return texts;
}

void clear_debug_file()
{
    std::filesystem::remove(debug_file);
}

std::string take_errors()
{
    std::string all;
    for (const std::string &text : debug_texts(DBG_ERROR)) {
        all += (all.empty() ? "" : "\n") + text;
    }
    clear_debug_file();
    return std::regex_replace(all, std::regex("occur\\(0x[0-9a-f]+"), "occur(0x?");
}

strings take_system_log()
{
    strings messages;
    static std::string bytes(1 << 17, '\0');
    for (;;) {
        const ssize_t count = recv(log_socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count < 0) {
            return messages;
        }
        // "<11>Nov 24 22:00:00 program: text"
        const std::string text = bytes.substr(0, static_cast<std::size_t>(count));
        const std::size_t priority_end = text.find('>') + 1;
        messages.push_back(text.substr(0, priority_end) +
                           text.substr(text.find(": ", priority_end + 15) + 2));
    }
}

strings take_system_texts()
{
    strings texts = take_system_log();
    for (std::string &text : texts) {
        const std::size_t position = text.find(']') + 1;
        if (position != 0 && text.find(' ', position) != std::string::npos) {
            text.erase(position, text.find(' ', position) - position);
            text.erase(text.find_last_not_of('\n') + 1);
        }
    }
    return texts;
}

std::string take_reports()
{
    const std::string error = "<11>[ERROR] ";
    std::string all;
    for (const std::string &text : take_system_texts()) {
        all += (text.starts_with(error) ? text.substr(error.size()) : text) + "\n";
    }
    return all;
}

void refused(long result, long expected, std::string report,
             const std::vector<const void *> &pointers)
{
    for (const void *pointer : pointers) {
        report.replace(report.find('%'), 1, place(pointer));
    }
    const bool is_usual = report.starts_with('(') || report.starts_with('.');
    report = (is_usual ? "Error input parameter" : "") + report + (report.empty() ? "" : "\n");
    EXPECT_EQ(result, expected) << report;
    EXPECT_EQ(take_reports(), report);
}

int open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

std::string place(const void *pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

xmlNode *parse(const std::string &text)
{
    xmlDoc *doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "utf-8",
                                XML_PARSE_NOBLANKS | XML_PARSE_NODICT);
    xmlNode *root = doc == nullptr ? nullptr : xmlCopyNode(xmlDocGetRootElement(doc), 1);
    xmlFreeDoc(doc);
    return root;
}

std::string print(xmlNode *node)
{
    xmlBuffer *buffer = xmlBufferCreate();
    xmlNodeDump(buffer, nullptr, node, 0, 0);
    std::string text(reinterpret_cast<const char *>(xmlBufferContent(buffer)));
    xmlBufferFree(buffer);
    return text;
}

std::string list_of(const xmlNode *node)
{
    std::string text;
    for (; node != nullptr; node = node->next) {
        text += print(const_cast<xmlNode *>(node));
    }
    return text;
}

Fixture::Fixture() : descriptors_before_(open_descriptors())
{
    econf_plugin_config_debug(DBG_ALL, 1);
    clear_debug_file();
    (void)take_system_log();
}

Fixture::~Fixture()
{
    EXPECT_EQ(open_descriptors(), descriptors_before_) << "descriptors left open, or closed";
}

} // namespace test
