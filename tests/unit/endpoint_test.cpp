// The daemon's profile: what is none, and what no profile may do to the socket paths. Which
// directory counts, the fuzz target "profile" knows, too.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"

#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/mman.h>
#include <sys/stat.h>

using namespace test;
using Endpoint = Fixture;

TEST_F(Endpoint, IsWhereTheProfileSaysOrWhereItWas)
{
    // Nobody may read these pages. Linux puts a mapping in front of the last one where it fits, so
    // a text that is read beyond the end of its mapping hits them.
    void *guards[64] = {};
    for (void *&page : guards) {
        page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    }
    const std::string profile = "/dev/shm/yang_modules/confd.conf";
    const std::string first = R"({"working-dir": "/run/cfg"})";
    const std::string invalid = "Confd's default-confd-profile is invalid.";
    // Profile, directory, complaint.
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {first + std::string(4096 - first.size(), ' '), "/run/cfg", ""}, // fills its page
        {first + std::string(3 << 20, ' '), "/run/cfg", ""},
        {R"({"a": {"working-dir": "/no"}, "working-dir": "/b", "working-dir": 3})", "/b", ""},
        {R"([{"working-dir": "/x"}, "/y"])", "", ""},
        {R"({"working-dir": x"/x"})", "", R"(Json parse error(x"/x"}).)"},
        {"", "", invalid},
        {"FIFO", "", invalid},
        {"HUGE", "", "Mapping default-confd-profile to memory failed(File too large)."},
    };
    std::string present = "/var/tmp";
    char *given = nullptr;
    std::filesystem::create_directories("/dev/shm/yang_modules");
    for (const auto &[text, named, complaint] : rows) {
        SCOPED_TRACE(text.substr(0, 80));
        std::filesystem::remove_all(profile);
        text == "FIFO" ? (void)mkfifo(profile.c_str(), 0600)
                       : (void)(std::ofstream(profile) << text);
        if (text == "HUGE") {
            EXPECT_EQ(truncate(profile.c_str(), std::numeric_limits<off_t>::max()), 0);
        }
        present = named.empty() ? present : named;
        EXPECT_EQ(conf_load_config(&given), complaint.empty() ? 0 : -1);
        EXPECT_EQ(take_errors(), complaint);
        EXPECT_EQ(given, present);
        EXPECT_EQ(g_conf_plugin_socket, (present + "/confd.plugin.socket").substr(0, 255));
    }
    std::free(given);
    for (void *page : guards) {
        munmap(page, 4096);
    }
}
