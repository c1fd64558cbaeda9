// The debug file and the system log: what is written, when, and in what form.
#include "support/log.h"
#include "test_support.h"

#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

namespace fs = std::filesystem;
using test::strings;

namespace {

const std::string debug_path = "/var/log/conf_plugin.log";

using Logs = test::Fixture;

TEST_F(Logs, LevelsOfTheDebugFile)
{
    // Level, enable, result, enabled afterwards, level afterwards.
    constexpr int switches[][5] = {
        {8, 1, 1, 1, 7},   {0, 1, 1, 1, 7}, {4, 1, 0, 1, 4}, {7, 5, 0, 1, 7},
        {-3, 1, 0, 1, -3}, {9, 0, 0, 0, 0}, {0, 1, 1, 0, 0}, {1, 1, 0, 1, 1},
    };
    for (const auto &[level, enable, result, enabled_after, level_after] : switches) {
        SCOPED_TRACE(::testing::Message() << level << ", " << enable);
        EXPECT_EQ(econf_plugin_config_debug(level, enable), result);
        EXPECT_EQ(std::pair(g_log_enable, g_log_level), std::pair(enabled_after, level_after));
        strings expected;
        test::clear_debug_file();
        for (int each = -4; each <= 9; ++each) {
            _conf_write_log(each, "text");
            if (enabled_after != 0 && each >= 0 && each <= level_after) {
                expected.push_back(std::string("[") + g_debug_desc[each] + "] - text");
            }
        }
        EXPECT_EQ(test::debug_lines(), expected);
        EXPECT_EQ(fs::exists(debug_path), !expected.empty());
    }
}

TEST_F(Logs, LinesOfTheDebugFile)
{
    const std::string fits(255, 'x');
    const char *volatile with_error = "%m %d"; // unknown to the compiler, which refuses %m
    const char *volatile no_format = nullptr;
    const std::time_t before = std::time(nullptr);
    errno = ENOTTY;
    _conf_write_log(DBG_INFO, with_error, 1);
    _conf_write_log(DBG_ERROR, "%s", fits.c_str());
    _conf_write_log(DBG_ERROR, "%sx", fits.c_str());
    _conf_write_log(DBG_ERROR, no_format, 1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(test::debug_lines(), (strings{"[INFO] - Inappropriate ioctl for device 1",
                                            "[ERROR] - " + fits, "[ERROR] - "}));
    std::string line;
    std::getline(std::ifstream(debug_path), line);
    EXPECT_TRUE(line.ends_with("1\r"));
    std::tm stamp{};
    ASSERT_EQ(strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &stamp), &line[19]);
    stamp.tm_isdst = -1;
    EXPECT_GE(std::mktime(&stamp), before);
    EXPECT_LE(std::mktime(&stamp), std::time(nullptr));
}

TEST_F(Logs, DebugFileIsLimitedAndNotForEverybodyAndNotLedAstray)
{
    const mode_t before = umask(0);
    _conf_write_log(DBG_ERROR, "text");
    umask(before);
    EXPECT_EQ(fs::status(debug_path).permissions() & fs::perms::others_all, fs::perms::none);
    fs::resize_file(debug_path, 2097152);
    _conf_write_log(DBG_ERROR, "kept"); // time, tag, separator, text and line end: 35 bytes
    EXPECT_EQ(_conf_get_file_length(debug_path.c_str()), 2097152 + 35);
    _conf_write_log(DBG_ERROR, "first");
    EXPECT_EQ(test::debug_lines(), strings{"[ERROR] - first"});
    EXPECT_EQ(_conf_get_file_length(nullptr), -1);
    EXPECT_EQ(_conf_get_file_length("/none"), -1);

    // What a full disk leaves of a line goes; a limit of this process stands in for the disk.
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const auto room_for_half_a_line = static_cast<rlim_t>(fs::file_size(debug_path) + 20);
    for (const rlim_t room : {room_for_half_a_line, limit.rlim_cur}) {
        const rlimit now{room, limit.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &now), 0);
        _conf_write_log(DBG_ERROR, "next");
    }
    EXPECT_EQ(test::debug_lines(), (strings{"[ERROR] - first", "[ERROR] - next"}));

    fs::remove(debug_path);
    fs::create_symlink("/var/log/elsewhere", debug_path);
    _conf_write_log(DBG_ERROR, "text"); // a test runs as root of its namespace
    EXPECT_FALSE(fs::exists("/var/log/elsewhere"));

    std::string other = "/var/log/other.log"; // is only tried
    std::ofstream(other) << "old";
    EXPECT_EQ(conf_dbg_enable(DBG_NULL, other.data()), 0);
    EXPECT_EQ(fs::file_size(other), 3U);
}

TEST_F(Logs, SystemLog)
{
    const std::tuple<int, std::string, std::string> messages[] = {
        {syslog_error, "<password>abc</password>", "<11><password>***</password>"},
        {syslog_warning, "#%<password>abc</password>", "<12>#%<password>abc</password>"},
        {syslog_info, "# <password>abc</password>", "<14># <password>***</password>"},
        {syslog_debug, "%s%n%d 100%", "<15>%s%n%d 100%"},
        {LOG_LOCAL3 | LOG_CRIT, "ab", "<154>ab"},
        {syslog_error, std::string(65535, 'x'), "<11>" + std::string(65535, 'x')},
        {syslog_error, std::string(65536, 'x'), "<11>"}, // too long
    };
    for (const auto &[priority, text, expected] : messages) {
        errno = ENOTTY;
        safety_syslog(priority, "%s", text.c_str());
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_TRUE(test::take_system_log() == strings{expected}) << expected.substr(0, 80);
    }
    const char *const nothing = nullptr;
    safety_syslog(syslog_error, nothing);
    EXPECT_EQ(test::take_system_log(), strings());
    const std::string place = "conf_debug_test.cpp:" + std::to_string(__LINE__ + 1);
    LOG_SYSTEM_DEBUG("d %s", "e"), LOG_SYSTEM_INFO("c");
    EXPECT_EQ(test::take_system_log(),
              (strings{"<15>[DEBUG]" + place + ":TestBody d e\n", "<14>[INFO]" + place + " c\n"}));
}

} // namespace
