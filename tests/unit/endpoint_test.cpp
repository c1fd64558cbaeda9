// The daemon's profile: which socket paths come of it, and what no profile may do to them.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/wire.h"
#include "test_support.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/mman.h>
#include <sys/stat.h>

using namespace test;

namespace {

constexpr const char *profile = "/dev/shm/yang_modules/confd.conf";
const std::string invalid = "Confd's default-confd-profile is invalid.";

std::function<void()> file(const std::string &text)
{
    return [text] { std::ofstream(profile) << text; };
}

std::string padded(const std::string &text, std::size_t size)
{
    return text + std::string(size - text.size(), ' ');
}

// Pages that nobody may read. Linux puts a mapping in front of the last one where it fits, so a
// text that is read beyond the end of its mapping hits them.
class guard_pages {
public:
    guard_pages()
    {
        for (void *&page : pages) {
            page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        }
    }
    ~guard_pages()
    {
        for (void *page : pages) {
            munmap(page, 4096);
        }
    }
    guard_pages(const guard_pages &) = delete;
    guard_pages &operator=(const guard_pages &) = delete;

private:
    std::array<void *, 64> pages{};
};

class Endpoint : public Fixture {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        std::filesystem::create_directories("/dev/shm/yang_modules");
    }

    static void use(const std::function<void()> &make)
    {
        std::filesystem::remove_all(profile);
        clear_debug_file();
        make();
    }

    static strings paths()
    {
        return {g_conf_agent_socket, g_conf_plugin_socket, g_conf_notifier_socket};
    }

    static strings below(const std::string &directory)
    {
        strings all;
        for (const char *name : {"agent", "plugin", "notifier"}) {
            all.push_back((directory + "/confd." + name + ".socket").substr(0, 255));
        }
        return all;
    }
};

TEST_F(Endpoint, UsesTheLastDirectoryThatTheProfileNames)
{
    EXPECT_EQ(paths(), below("/var/tmp"));
    const std::string tall(300, 'd');
    const std::string first = R"({"working-dir": "/run/cfg"})";
    const std::pair<std::string, std::string> cases[] = {
        {first, "/run/cfg"},
        {R"({"a": {"working-dir": "/no"}, "working-dir": "/a", "b": [1]})", "/a"},
        {R"({"working-dir": "/a", "working-dir": "/b", "working-dir": 3})", "/b"},
        {R"({"working-dir": "\/run\u002fw \u00fc"})", "/run/w \xc3\xbc"},
        {R"({"working-dir": ""})", ""},
        {R"({"working-dir": "/)" + tall + "\"}", "/" + tall},
        {padded(first, 4096), "/run/cfg"}, // no room behind it in its page
        {padded(first, wire::max_profile), "/run/cfg"},
        // Without a directory in it everything stays as it was.
        {"{}", "/run/cfg"},
        {R"({"working-dir": 7, "Working-Dir": "/x"})", "/run/cfg"},
        {R"({"working-dir": null})", "/run/cfg"},
        {R"([{"working-dir": "/x"}, "/y"])", "/run/cfg"},
        {R"("working-dir")", "/run/cfg"},
    };
    char *directory = nullptr;
    for (const auto &[text, expected] : cases) {
        use(file(text));
        const guard_pages behind;
        EXPECT_EQ(conf_load_config(&directory), 0) << text.substr(0, 80);
        EXPECT_EQ(paths(), below(expected)) << text.substr(0, 80);
        EXPECT_EQ(directory, expected);
        EXPECT_EQ(debug_lines(), strings());
    }
    std::free(directory);
    use(file(R"({"working-dir": "/var/tmp"})"));
    EXPECT_EQ(conf_load_config(nullptr), 0);
    EXPECT_EQ(paths(), below("/var/tmp"));
}

TEST_F(Endpoint, ChangesNothingWhenTheProfileCannotBeUsed)
{
    const struct {
        std::function<void()> make;
        std::string complaint;
    } cases[] = {
        {[] {}, std::string("Open default-confd-profile(") + profile +
                    ") failed(No such file or directory)."},
        {file(""), invalid},
        {file(padded(R"({"working-dir": "/x"})", wire::max_profile + 1)), invalid},
        {[] { mkfifo(profile, 0600); }, invalid},
        {[] { std::filesystem::create_directories(std::string(profile) + "/x"); },
         "Mapping default-confd-profile to memory failed(Is a directory)."},
        {file(R"({"working-dir": x"/x"})"), R"(Json parse error(x"/x"}).)"},
        {file(R"({"working-dir": "/x")"), "Json parse error()."},
        {file("   "), "Json parse error()."},
    };
    char *const before = strdup("before");
    char *directory = before;
    for (const auto &c : cases) {
        use(c.make);
        EXPECT_EQ(conf_load_config(&directory), -1) << c.complaint;
        EXPECT_EQ(paths(), below("/var/tmp"));
        EXPECT_EQ(directory, before);
        EXPECT_EQ(take_errors(), c.complaint);
    }
    EXPECT_STREQ(directory, "before");
    std::free(directory);
}

} // namespace
