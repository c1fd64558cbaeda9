// What a person at a terminal is offered: words that lead on from what is typed, and the commands
// of former sessions.
#include "commands/words.h"
#include "failure.h"
#include "model/model.h"
#include "terminal/completion.h"
#include "terminal/history_file.h"
#include "test_support.h"

#include <fstream>
#include <sys/stat.h>

using namespace confsim;

namespace {

constexpr const char *module_text = R"(
module shop {
  yang-version 1.1; namespace "urn:shop"; prefix s;
  identity fruit; identity apple { base fruit; } identity apricot { base fruit; }
  container shop {
    leaf open { type boolean; }
    leaf sells { type identityref { base fruit; } }
    leaf colour { type enumeration { enum red; enum "dark red"; enum "#blue"; } }
    leaf-list tag { type string; }
    container state { config false; leaf visitors { type uint32; } }
    list till {
      key "floor number";
      leaf floor { type enumeration { enum ground; enum first; } }
      leaf number { type string; }
      leaf money { type string; }
    }
  }
})";

const std::vector<usage> commands = {
    {"set", "PATH [VALUE]"},
    {"show", "[--json] [running|candidate] [PATH]"},
    {"status", "PATH [FILTER]"},
    {"delete", "PATH"},
    {"move", "PATH before|after|first|last [PATH]"},
    {"model", "[PATH]"},
    {"expect-within", "SECONDS COMMAND..."},
    {"expect-message", "PLUGIN METHOD [XPATH [VALUE]] [SECONDS]"},
    {"start", "NAME -- COMMAND..."},
    {"try", "COMMAND..."},
    {"call", "OPERATION [XML|@FILE]"},
    {"load", "FILE"},
    {"fault", "PLUGIN|all [always] FAULT... | [PLUGIN] off"},
};
const std::vector<usage> faults = {{"drop", ""}, {"delay", "SECONDS"}};

class Terminal : public ::testing::Test {
protected:
    // What the line becomes and, behind a bar, what is shown when it stays as it is.
    [[nodiscard]] std::string completed(const std::string &line) const
    {
        const surroundings here{
            {commands, faults},   *config, known, {"users", "routes"}, {"users:lock"},
            {"/shop:shop/state"}, {"sh"}};
        const completion found = complete(line, here);
        std::string now = line.substr(0, found.begin) + found.replacement;
        if (now == line) {
            now += "|";
            for (const std::string &each : found.candidates) {
                now += each + (&each == &found.candidates.back() ? "" : " ");
            }
            now += found.has_more ? " ..." : "";
        }
        return now;
    }

    void check(const std::vector<std::pair<const char *, const char *>> &cases) const
    {
        for (const auto &[line, expected] : cases) {
            EXPECT_EQ(completed(line), expected) << "behind: " << line;
        }
    }

    void set(const std::string &where, const char *value = nullptr)
    {
        config->set(parse_path(where), value == nullptr ? std::nullopt : std::optional(value));
    }

    std::unique_ptr<model> shop;
    std::optional<configuration> config{std::in_place, ""};
    variables known;
};

TEST_F(Terminal, WordsOfCommands)
{
    check({
        {"", "|call delete expect-message expect-within fault load model move set show start "
             "status try"},
        {"  mov", "  move "},
        {"s", "s|set show start status"},
        {"nonsense ", "nonsense |"},
        {"# s", "# s|"},
        {"show --", "show --json "},
        {"show --json c", "show --json candidate "},
        {"move /a:b/c ", "move /a:b/c |after before first last"},
        {"move /a:b/c before x", "move /a:b/c before x|"},
        {"try expect-within 3 fault u", "try expect-within 3 fault users "},
        {"try", "try "},
        {"start x -- s", "start x -- s|"},
        {"expect-message r", "expect-message routes "},
        {"fault ", "fault |all off routes users"},
        {"fault users ", "fault users |always delay drop off"},
        {"fault users always d", "fault users always d|delay drop"},
        {"fault users always delay ", "fault users always delay |"},
        {"call us", "call users:lock "},
        {"status /sh", "status /shop:shop/state"},
    });
}

TEST_F(Terminal, PathsOfWhatIsThere)
{
    set("/m:box/list[name=\"one\"]/leaf", "1");
    set("/m:box/list[name=\"other\"]/leaf", "2");
    set("/m:box/list[name=\"b c\"]/n:deep/leaf", "3");
    set("/m:box/word[.=\"x\"]");
    set("/m:box/word[.=\"y\"]");
    set("/m:bottom", "4");
    check({
        {"delete ", "delete /m:bo"},
        {"delete /", "delete /m:bo"},
        {"delete /m:bo", "delete /m:bo|m:bottom m:box/"},
        {"delete /bot", "delete /m:bottom "},
        {"set /m:box/", "set /m:box/|list[ word["},
        {"set /m:box/l", "set /m:box/list["},
        {"set /m:box/list[", "set /m:box/list[name=\""},
        {"set /m:box/list[name=\"", "set /m:box/list[name=\"|list[name=\"b c\"]/ "
                                    "list[name=\"one\"]/ list[name=\"other\"]/"},
        {"set /m:box/list[name='on", "set /m:box/list[name=\"one\"]/"},
        {"set /m:box/list[m:name=ot", "set /m:box/list[name=\"other\"]/"},
        {"set /m:box/list[name=\"one\"]", "set /m:box/list[name=\"one\"]/"},
        {"set /m:box/list[name=\"b c\"]/", "set /m:box/list[name=\"b c\"]/n"},
        {"set /m:box/list[name=\"b c\"]/n:deep/l", "set /m:box/list[name=\"b c\"]/n:deep/leaf "},
        {"set \"/m:box/list[name='on", "set /m:box/list[name=\"one\"]/"},
        {"delete /m:box/word[", "delete /m:box/word[.=\""},
        {"delete /m:box/word[.=\"y", "delete /m:box/word[.=\"y\"] "},
        {"delete /m:box/list[leaf=", "delete /m:box/list[leaf=|"},
        {"delete /m:nowhere/", "delete /m:nowhere/|"},
        {"delete /m:box/list[name=\"one\"]x", "delete /m:box/list[name=\"one\"]x|"},
        {"show /", "show /|"},
        {"show candidate /m:bot", "show candidate /m:bottom "},
        {"set /m:bottom ", "set /m:bottom |"},
    });
}

TEST_F(Terminal, PathsAndValuesOfTheModel)
{
    std::ofstream("/var/tmp/shop.yang") << module_text;
    try {
        shop = read_model({{"/var/tmp/shop.yang"}});
    } catch (const failure &reason) {
        ASSERT_TRUE(std::string(reason.what()).ends_with("built without libyang")) << reason.what();
        GTEST_SKIP();
    }
    config.emplace("", shop.get());
    set("/shop:shop/till[floor='first'][number='7']/money", "100");
    check({
        {"set /", "set /shop:shop/"},
        {"set /shop:shop/", "set /shop:shop/|colour open sells tag till["},
        {"model /shop:shop/s", "model /shop:shop/s|sells state/"},
        {"set /shop:shop/till[", "set /shop:shop/till[floor=\""},
        {"set /shop:shop/till[floor=\"g", "set /shop:shop/till[floor=\"ground\"]"},
        {"set /shop:shop/till[floor=\"ground\"]",
         "set /shop:shop/till[floor=\"ground\"][number=\""},
        {"set /shop:shop/till[floor=\"ground\"][number=\"1\"]",
         "set /shop:shop/till[floor=\"ground\"][number=\"1\"]/"},
        {"set /shop:shop/till[floor=\"ground\"][number=\"1\"]/m",
         "set /shop:shop/till[floor=\"ground\"][number=\"1\"]/money "},
        {"delete /shop:shop/", "delete /shop:shop/till["},
        {"delete /shop:shop/till[number=\"7",
         "delete /shop:shop/till[floor=\"first\"][number=\"7\"]/"},
        {"set /shop:shop/open ", "set /shop:shop/open |false true"},
        {"set /shop:shop/sells ", "set /shop:shop/sells shop:ap"},
        {"set /shop:shop/sells apr", "set /shop:shop/sells shop:apricot "},
        {"set /shop:shop/colour d", "set /shop:shop/colour 'dark red' "},
        {"try set /shop:shop/colour '", "try set /shop:shop/colour '|#blue dark red red"},
        {"set /shop:shop/colour '#", "set /shop:shop/colour '#blue' "},
        {"set /shop:shop/nothing ", "set /shop:shop/nothing |"},
    });
}

// Whoever types a path, and takes each offer, gets the path of the entry, whatever is in its key.
TEST_F(Terminal, OddKeysAreReadBack)
{
    const std::vector<std::string> odd = {
        "plain",       "two words",
        "\"",          "'",
        "\"'",         "' \"",
        "\\",          "\\\"",
        "a\\",         "[x]",
        "]/y[",        "a=\"b c\"",
        "x='y z",      "$HOME",
        "$$",          "$",
        "#no comment", "<x>",
        "tab\there",   "\r",
        ",",           "\xC3\xA9t\xC3\xA9",
        "\xC3\xA8",    "a\" b",
        "a\" 'b' \\",  " ",
        "..",          "it's \"so\" = \"it is\"",
    };
    std::vector<path> entries;
    for (const std::string &each : odd) {
        if (each.find_first_not_of(" \r\t") != std::string::npos) { // else XML does not keep it
            entries.push_back(
                {{"m", "top", {}}, {"m", "list", {{"key", each}}}, {"m", "leaf", {}}});
            config->set(entries.back(), "1");
        }
    }
    for (const char *definition : {"", "HOME=somewhere"}) {
        if (*definition != '\0') {
            define(known, definition);
        }
        for (const path &wanted : entries) {
            const std::string target = to_text(wanted);
            std::string line = "delete /m:top/list[";
            for (std::size_t tries = 0; !split_typed(line).last.empty(); ++tries) {
                ASSERT_LT(tries, 200U) << target << " is not reached: " << line;
                std::string now = completed(line);
                if (now.starts_with(line + '|')) { // one more character
                    std::vector<std::string> read = {split_typed(line).last};
                    expand(read, known);
                    ASSERT_TRUE(target.starts_with(read[0])) << target << " differs: " << line;
                    std::string more = target.substr(0, read[0].size() + 1);
                    for (std::size_t at = 0; !known.empty() && at < more.size(); ++at) {
                        if (more[at] == '$') {
                            more.insert(at++, 1, '$');
                        }
                    }
                    now = "delete " + typed_as(more, false);
                }
                line = now;
            }
            std::vector<std::string> read = split_words(line);
            expand(read, known);
            ASSERT_EQ(read.size(), 2U) << line;
            EXPECT_EQ(to_text(parse_path(read[1])), target) << line;
        }
    }
}

TEST_F(Terminal, OfManyAFewAreShown)
{
    for (int i = 100000; i < 105000; ++i) {
        set("/m:top/list[name=\"n" + std::to_string(i) + "\"]/leaf", "1");
    }
    const std::string shown = completed("set /m:top/list[name=\"n10");
    EXPECT_TRUE(shown.starts_with("set /m:top/list[name=\"n10|list[name=\"n100000\"]/ ")) << shown;
    EXPECT_TRUE(shown.ends_with(" list[name=\"n100099\"]/ ...")) << shown;
    // What all begin with counts those, too, that are not shown.
    EXPECT_EQ(completed("set /m:top/list["), "set /m:top/list[name=\"n10");
}

TEST_F(Terminal, FilesAreCompleted)
{
    std::filesystem::create_directories("/var/tmp/files/dir");
    std::ofstream("/var/tmp/files/a b.xml");
    std::ofstream("/var/tmp/files/.hidden");
    check({
        {"load /var/tmp/files/", "load /var/tmp/files/|a b.xml dir/"},
        {"load /var/tmp/files/a", "load '/var/tmp/files/a b.xml' "},
        {"load /var/tmp/files/.", "load /var/tmp/files/.hidden "},
        {"call users:lock @/var/tmp/files/d", "call users:lock @/var/tmp/files/dir/"},
        {"load /var/tmp/none/", "load /var/tmp/none/|"},
    });
}

TEST(History, IsKeptForItsOwnerWithoutSecrets)
{
    const std::filesystem::path file = "/var/tmp/state/confsim/history";
    history_file kept(file);
    const std::vector<const char *> secret = {
        "set /u:users/user[name='a']/password x",
        "try set /u:users/user[name='a']/password x",
        "set \"/u:users/user[name='a']/password\" x",
        "set /u:users/user[password='x']/name a",
        "call login <password>x</password>",
        "expect-xpath //user/password x",
        "set '/u:users/password",
    };
    kept.add("commit");
    for (const char *each : secret) {
        kept.add(each);
    }
    kept.add("commit");
    kept.add("set /u:users/user[name='a']/uid 7");
    EXPECT_EQ(kept.lines(),
              (std::vector<std::string>{"commit", "set /u:users/user[name='a']/uid 7"}));

    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    for (std::size_t i = 0; i < history_file::most_lines + 5; ++i) {
        kept.add("echo " + std::to_string(i));
    }
    const std::vector<std::string> lines = history_file(file).lines();
    ASSERT_EQ(lines.size(), history_file::most_lines);
    EXPECT_EQ(lines.front(), "echo 5");
    EXPECT_EQ(lines.back(), "echo 1004");
    struct stat found {};
    ASSERT_EQ(stat(file.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0600U);

    history_file("/proc/nowhere/history").add("commit"); // is no error
    history_file("").add("commit");
}

} // namespace
