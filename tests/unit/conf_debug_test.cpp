// The debug file and the system log: what is written, when, and in what form.
#include "reports.h"
#include "support/log.h"
#include "support/owners.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <syslog.h>

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

const std::string debug_path = "/var/log/conf_plugin.log";

std::string content(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class DebugFileTest : public test::Fixture {};
class SystemLogTest : public test::Fixture {};

TEST_F(DebugFileTest, SwitchAndLevels)
{
    const struct {
        int level, enable, result, enabled_after, level_after;
    } switches[] = {
        {4, 1, 0, 1, 4},   {8, 1, 1, 1, 4}, {0, 1, 1, 1, 4}, {7, 5, 0, 1, 7},
        {-3, 1, 0, 1, -3}, {9, 0, 0, 0, 0}, {0, 1, 1, 0, 0}, {1, 1, 0, 1, 1},
    };
    for (const auto &[level, enable, result, enabled_after, level_after] : switches) {
        EXPECT_EQ(econf_plugin_config_debug(level, enable), result) << level << ", " << enable;
        EXPECT_EQ(g_log_enable, enabled_after) << level << ", " << enable;
        EXPECT_EQ(g_log_level, level_after) << level << ", " << enable;
    }

    for (const int limit : {-1, 1, 4, 7}) {
        test::clear_debug_file();
        ASSERT_EQ(econf_plugin_config_debug(limit, 1), 0);
        strings expected;
        for (int level = -2; level <= 9; ++level) {
            _conf_write_log(level, "text %d", level);
            if (level >= 0 && level <= limit) {
                expected.push_back(std::string("[") + g_debug_desc[level] + "] - text " +
                                   std::to_string(level));
            }
        }
        EXPECT_EQ(test::debug_lines(), expected) << limit;
    }

    test::clear_debug_file();
    ASSERT_EQ(econf_plugin_config_debug(7, 0), 0);
    _conf_write_log(DBG_NULL, "text");
    EXPECT_FALSE(fs::exists(debug_path));
}

TEST_F(DebugFileTest, LineFormat)
{
    const std::time_t before = std::time(nullptr);
    _conf_write_log(DBG_INFO, "one %s", "two");
    _conf_write_log(DBG_MSG, "<password>shown</password>");
    const std::string text = content(debug_path);
    std::string shape = text;
    std::replace_if(
        shape.begin(), shape.end(), [](char c) { return c >= '0' && c <= '9'; }, '#');
    EXPECT_EQ(shape, "####-##-## ##:##:##[INFO] - one two\r\n"
                     "####-##-## ##:##:##[MSG] - <password>shown</password>\r\n");
    std::tm stamp{};
    ASSERT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &stamp), nullptr);
    stamp.tm_isdst = -1;
    const std::time_t written = std::mktime(&stamp);
    EXPECT_TRUE(before <= written && written <= std::time(nullptr));
}

TEST_F(DebugFileTest, TextLimits)
{
    const std::string fits(255, 'x');
    _conf_write_log(DBG_ERROR, "%s", fits.c_str());
    _conf_write_log(DBG_ERROR, "%sx", fits.c_str());
    EXPECT_EQ(test::debug_texts(DBG_ERROR), (strings{fits, ""}));

    test::clear_debug_file();
    const char *volatile no_format = nullptr;
    _conf_write_log(DBG_ERROR, no_format, 1);
    EXPECT_TRUE(fs::exists(debug_path));
    EXPECT_EQ(content(debug_path), "");
}

TEST_F(DebugFileTest, OversizedFileIsRemoved)
{
    std::ofstream(debug_path) << "old";
    fs::resize_file(debug_path, 2097152);
    _conf_write_log(DBG_ERROR, "kept"); // time, tag, separator, text and line end: 35 bytes
    EXPECT_EQ(_conf_get_file_length(debug_path.c_str()), 2097152 + 35);

    fs::resize_file(debug_path, 2097153);
    _conf_write_log(DBG_ERROR, "first");
    EXPECT_EQ(test::debug_lines(), strings{"[ERROR] - first"});
    EXPECT_EQ(_conf_get_file_length(nullptr), -1);
    EXPECT_EQ(_conf_get_file_length("/no/such/file"), -1);
}

TEST_F(DebugFileTest, IsNotForEverybodyAndNotLedAstray)
{
    const mode_t before = umask(0);
    fs::remove(debug_path);
    _conf_write_log(DBG_ERROR, "text");
    umask(before);
    EXPECT_EQ(fs::status(debug_path).permissions() & fs::perms::others_all, fs::perms::none);

    const std::string elsewhere = "/var/log/elsewhere";
    fs::remove(debug_path);
    fs::create_symlink(elsewhere, debug_path);
    _conf_write_log(DBG_ERROR, "text"); // a test runs as root of its namespace
    EXPECT_FALSE(fs::exists(elsewhere));
    fs::remove(debug_path);
}

TEST_F(DebugFileTest, FailuresAreSilentAndErrnoStays)
{
    errno = ENOTTY;
    const char *volatile with_error = "%m %d"; // unknown to the compiler, which refuses %m
    _conf_write_log(DBG_ERROR, with_error, 1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(test::debug_texts(DBG_ERROR), strings{std::strerror(ENOTTY) + std::string(" 1")});

    test::clear_debug_file();
    fs::create_directory(debug_path);
    _conf_write_log(DBG_ERROR, "lost");
    EXPECT_EQ(errno, ENOTTY);
    fs::remove(debug_path);
    EXPECT_EQ(test::take_reports(), "");
}

TEST_F(DebugFileTest, EnableChecksAFileOfItsOwn)
{
    std::string path = "/var/log/other.log";
    std::string missing = "/var/log/missing/other.log";
    EXPECT_EQ(econf_plugin_config_debug(0, 0), 0);
    EXPECT_EQ(conf_dbg_enable(7, path.data()), 0);
    EXPECT_TRUE(fs::exists(path));
    EXPECT_TRUE(g_log_enable == 0 && g_log_level == 0);
    conf_dbg_disable();

    std::ofstream(path) << "old";
    EXPECT_EQ(conf_dbg_enable(0, path.data()), 0);
    EXPECT_EQ(content(path), "old");
    conf_dbg_disable();
    fs::remove(path);
    EXPECT_EQ(conf_dbg_enable(0, nullptr), 0);
    conf_dbg_disable();
    test::refused(conf_dbg_enable(0, missing.data()), -1,
                  "Open file failed(No such file or directory).");
}

TEST_F(SystemLogTest, PrioritiesMaskingAndEscape)
{
    const struct {
        int priority;
        std::string text, expected;
    } messages[] = {
        {syslog_error, "<password>abc</password>", "<11><password>***</password>"},
        {syslog_warning, "#%<password>abc</password>", "<12>#%<password>abc</password>"},
        {syslog_info, "# <password>abc</password>", "<14># <password>***</password>"},
        {syslog_debug, "%s%n%d 100%", "<15>%s%n%d 100%"},
        {LOG_LOCAL3 | LOG_CRIT, "ab", "<154>ab"},
        {syslog_error, "", "<11>"},
        {syslog_error, std::string(65535, 'x'), "<11>" + std::string(65535, 'x')},
        {syslog_error, std::string(65536, 'x'), "<11>"}, // too long
    };
    for (const auto &[priority, text, expected] : messages) {
        errno = ENOTTY;
        safety_syslog(priority, "%s", text.c_str());
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_TRUE(test::take_system_log() == strings{expected}) << expected.substr(0, 80);
    }
}

TEST_F(SystemLogTest, MacrosPutThePlaceInFront)
{
    constexpr int line = __LINE__;
    LOG_SYSTEM_ERROR("a %d.", 1);
    LOG_SYSTEM_WARN("b");
    LOG_SYSTEM_INFO("c");
    LOG_SYSTEM_DEBUG("d %s", "e");
    const auto place = [](int after) {
        return "conf_debug_test.cpp:" + std::to_string(line + after);
    };
    EXPECT_EQ(test::take_system_log(), (strings{
                                           "<11>[ERROR]" + place(1) + ":TestBody a 1.\n",
                                           "<12>[WARN]" + place(2) + ":TestBody b\n",
                                           "<14>[INFO]" + place(3) + " c\n",
                                           "<15>[DEBUG]" + place(4) + ":TestBody d e\n",
                                       }));
}

} // namespace
