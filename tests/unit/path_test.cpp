// Path forms and quote removal: examples, and equality with an implementation that follows the
// rules for quotes word by word.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <malloc.h>
#include <random>

namespace {

using std::string;

// ---- quote removal, word by word ---------------------------------------------------------------

bool in_quotes(const string &text, std::size_t begin, std::size_t end)
{
    int quotes = 0;
    int backslashes = 0;
    for (std::size_t i = begin; i <= end; ++i) {
        quotes += text[i] == '"' && backslashes % 2 == 0 ? 1 : 0;
        backslashes = text[i] == '\\' ? backslashes + 1 : 0;
    }
    return quotes % 2 == 1;
}

string without_quotes(const string &text)
{
    string out;
    for (std::size_t r = 0; r < text.size(); ++r) {
        out += text[r];
        if (text[r] != '=' || r + 1 == text.size() || text[r + 1] != '"' || in_quotes(text, 0, r)) {
            continue;
        }
        std::size_t end = r + 1;
        while (end < text.size() &&
               ((text[end] != ']' && text[end] != ',') || in_quotes(text, r + 1, end))) {
            ++end;
        }
        const string quoted = text.substr(r + 1, end - r - 1);
        if (end < text.size() && quoted.size() >= 2 && quoted.back() == '"' &&
            quoted.find_first_of(",]\\") == string::npos &&
            std::count(quoted.begin(), quoted.end(), '"') == 2) {
            out += quoted.substr(1, quoted.size() - 2) + text[end];
            r = end;
        }
    }
    return out;
}

// ---- the library's answers ---------------------------------------------------------------------

template <char *(*convert)(const char *)>
string converted(const string &path)
{
    char *const text = convert(path.c_str());
    string copy = text;
    std::free(text);
    return copy;
}
constexpr auto schema2std = converted<plugin_path_schema2std>;
constexpr auto data2std = converted<plugin_path_data2std>;
constexpr auto std2db = converted<plugin_path_std2db>;

// With a check that nothing of the old text remains behind the new end.
string rm_quotes(const string &text)
{
    string path = text;
    EXPECT_EQ(datastore_path_rm_quotes(path.data()), path.data());
    const std::size_t length = std::strlen(path.c_str());
    EXPECT_EQ(path.find_first_not_of('\0', length), string::npos) << text;
    return path.substr(0, length);
}

class Path : public test::Fixture {};

TEST_F(Path, Examples)
{
    const struct {
        string (*convert)(const string &);
        const char *before, *after;
    } cases[] = {
        {schema2std, "/mod-a:top/mod-a:item[mod-a:name='x']/mod-a:leaf", "/mod-a:top/item/leaf"},
        {schema2std, "/mod-a:top/mod-a:item/mod-b:ext/mod-b:leaf",
         "/mod-a:top/item/mod-b:ext/leaf"},
        {data2std, "/mod-a/top/item[name='x']/leaf", "/mod-a:top/item[name='x']/leaf"},
        {data2std, "mod-a/top", "/mod-a:top"},
        {data2std, "/mod-a:top/mod-b:x/mod-a:y", "/mod-a:top/mod-b:x/mod-a:y"},
        {data2std, "/mod-a:top/mod:x/mod-ab:y", "/mod-a:top/mod:x/mod-ab:y"},
        {data2std, "/mod-a", "/mod-a"},
        {data2std, "/mod-a/", "/mod-a:"},
        {data2std, "/mod-a:top/", "/mod-a:top"},
        {data2std, "/mod-a:top/:x//y/mod-a:", "/mod-a:top/x//y"},
        {data2std, "//a:b:c", "//a:b:c"},
        {data2std, "[k]a", "[k]a"},
        {data2std, "/", "/"},
        {data2std, "", ""},
        {data2std, "/a:x/a:y[k='1/2:3']/a:z", "/a:x/y[k='1/2:3']/z"},
        {std2db, "/mod-a:top/item/mod-b:ext/leaf", "/mod-a/top/item/mod-b:ext/leaf"},
        {std2db, "/mod-a/top/item[name='x']/leaf", "/mod-a/top/item[name='x']/leaf"},
        {std2db, "/mod-a", "/mod-a"},
        {std2db, "", ""},
        {rm_quotes, R"(/a/b[name="x"]/c)", "/a/b[name=x]/c"},
        {rm_quotes, R"(/x[k1="1",k2="2"])", "/x[k1=1,k2=2]"},
        {rm_quotes, R"(/x[k=""])", "/x[k=]"},
        {rm_quotes, R"(/x[k="a,b"])", R"(/x[k="a,b"])"},
        {rm_quotes, R"(/x[k="a\"b"])", R"(/x[k="a\"b"])"},
        {rm_quotes, R"(/x[k="v")", R"(/x[k="v")"},
        {rm_quotes, R"(/i[n="p/0/1"]/x[v="a=b"])", "/i[n=p/0/1]/x[v=a=b]"},
        {rm_quotes, "", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.convert(c.before), c.after) << c.before;
        if (c.convert == rm_quotes) {
            EXPECT_EQ(without_quotes(c.before), c.after) << "the rules themselves";
        }
    }
    EXPECT_EQ(plugin_path_schema2std(nullptr), nullptr);
    EXPECT_EQ(plugin_path_data2std(nullptr), nullptr);
    EXPECT_EQ(plugin_path_std2db(nullptr), nullptr);
    EXPECT_EQ(datastore_path_rm_quotes(nullptr), nullptr);
    EXPECT_TRUE(test::debug_lines().empty());
}

TEST_F(Path, FollowsTheRulesForAnyText)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto text = [&](const string &alphabet) {
        string made(random() % 20, '\0');
        std::generate(made.begin(), made.end(),
                      [&] { return alphabet[random() % alphabet.size()]; });
        return made;
    };
    for (int round = 0; round < 50000 && !HasFailure(); ++round) {
        // The forms in terms of each other.
        const string path = text("//::ab");
        string database = data2std(path);
        EXPECT_EQ(schema2std(path), database) << path;
        EXPECT_EQ(schema2std("/a:b[" + path + "]/" + path), data2std("/a:b/" + path)) << path;
        const std::size_t colon = database.starts_with(':') ? 0 : database.find(':', 1);
        if (colon != string::npos) {
            database[colon] = '/';
        }
        EXPECT_EQ(std2db(path), database) << path;
        const string quoted = text("==\"\"\"\\],a");
        EXPECT_EQ(rm_quotes(quoted), without_quotes(quoted)) << quoted;
    }
}

TEST_F(Path, TakesTimeInProportionToTheLength)
{
    // Keep freed memory: what the system takes for fresh pages would count for the large text
    // alone.
    (void)mallopt(M_MMAP_THRESHOLD, 32 << 20);
    (void)mallopt(M_TRIM_THRESHOLD, 256 << 20);
    // Processor time, as the machine has other work too.
    const auto time = [](const auto &convert, const char *unit, std::size_t size) {
        string text;
        while (text.size() < size) {
            text += unit;
        }
        std::clock_t best = std::numeric_limits<std::clock_t>::max();
        for (int run = 0; run < 5; ++run) {
            const std::clock_t begin = std::clock();
            (void)convert(text);
            best = std::min(best, std::clock() - begin);
        }
        return static_cast<double>(best);
    };
    for (const char *unit :
         {"=\"", "=\"a\"]", "=\"a", "\\\"=", "=\"\\\"", "/a:b", "a:", "/", "[", "a"}) {
        for (string (*const convert)(const string &) : {rm_quotes, +data2std}) {
            double ratio = 16; // four times the length squared; noise only adds to a time
            for (int attempt = 0; attempt < 10 && ratio >= 8; ++attempt) {
                ratio = time(convert, unit, 1 << 20) / time(convert, unit, 256 << 10);
            }
            EXPECT_LT(ratio, 8) << unit;
        }
    }
}

} // namespace
