// See test_support.h. Relies on the sandbox that main.cpp enters: /dev/log is a socket of ours.
#include "test_support.h"

#include "system_log.h"

#include <libxml/parser.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

namespace {

constexpr const char *debug_file = "/var/log/conf_plugin.log";
constexpr std::size_t stamp_length = 19;

} // namespace

std::vector<std::string> debug_lines()
{
    std::vector<std::string> lines;
    std::ifstream file(debug_file, std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line.size() > stamp_length ? line.substr(stamp_length) : line);
    }
    return lines;
}

std::vector<std::string> debug_texts(int level)
{
    const std::string tag = std::string("[") + g_debug_desc[level] + "] - ";
    std::vector<std::string> texts;
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
    for (std::string &text : debug_texts(DBG_ERROR)) {
        const std::size_t number = text.find("occur(0x");
        if (number != std::string::npos) {
            text.replace(number + 8, text.find(')') - number - 8, "?");
        }
        all += (all.empty() ? "" : "\n") + text;
    }
    clear_debug_file();
    return all;
}

std::vector<std::string> take_system_log()
{
    std::vector<std::string> messages;
    static std::string message(1 << 17, '\0');
    for (;;) {
        const ssize_t count =
            recv(system_log_socket(), message.data(), message.size(), MSG_DONTWAIT);
        if (count < 0) {
            return messages;
        }
        // "<11>Nov 24 22:00:00 program: text"
        std::string text = message.substr(0, static_cast<std::size_t>(count));
        const std::size_t priority_end = text.find('>');
        const std::size_t program_end = text.find(": ", priority_end + 16);
        messages.push_back(text.substr(0, priority_end + 1) + text.substr(program_end + 2));
    }
}

std::vector<std::string> take_system_texts()
{
    std::vector<std::string> texts;
    for (const std::string &message : take_system_log()) {
        const std::size_t tag_end = message.find(']');
        const std::size_t position_end = message.find(' ', tag_end);
        if (tag_end == std::string::npos || position_end == std::string::npos) {
            texts.push_back(message);
            continue;
        }
        std::string text = message.substr(0, tag_end + 1) + message.substr(position_end);
        while (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        texts.push_back(text);
    }
    return texts;
}

int open_descriptors()
{
    int count = 0;
    for ([[maybe_unused]] const auto &entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

int without_descriptors(const std::function<int()> &call)
{
    rlimit before{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = call();
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    return result;
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
    if (doc == nullptr) {
        return nullptr;
    }
    xmlNode *root = xmlCopyNode(xmlDocGetRootElement(doc), 1);
    xmlFreeDoc(doc);
    return root;
}

std::string print(xmlNode *node)
{
    if (node == nullptr) {
        return {};
    }
    xmlBuffer *buffer = xmlBufferCreate();
    xmlNodeDump(buffer, nullptr, node, 0, 0);
    std::string text(reinterpret_cast<const char *>(xmlBufferContent(buffer)),
                     static_cast<std::size_t>(xmlBufferLength(buffer)));
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

void Fixture::SetUp()
{
    econf_plugin_config_debug(DBG_ALL, 1);
    clear_debug_file();
    (void)take_system_log();
    descriptors_before = open_descriptors();
}

void Fixture::TearDown()
{
    EXPECT_EQ(open_descriptors(), descriptors_before) << "descriptors left open, or closed";
}

} // namespace test
