// Path forms and quote removal: examples, and equality with slow implementations that follow the
// rules word by word.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <malloc.h>
#include <optional>
#include <random>

namespace {

using std::string;

// ---- the rules, word by word -------------------------------------------------------------------

string to_standard(bool is_schema, const string &path)
{
    string out;
    std::size_t node_start = string::npos; // in the source
    std::size_t node_written = 0;          // the same place in the output
    std::optional<string> current;         // namespace
    bool is_key = false;
    for (std::size_t i = 0; i < path.size(); ++i) {
        const char c = path[i];
        if (c == '[' || c == ']') {
            is_key = c == '[';
            out += is_schema ? "" : string(1, c);
        } else if (is_key) {
            out += is_schema ? "" : string(1, c);
        } else if (c == '/' && (node_start == string::npos || current)) {
            out += c;
            node_start = string::npos;
        } else if (c == '/') {
            current = out.substr(node_written);
            out += ':';
        } else if (c == ':' && node_start != string::npos) {
            if (current && path.substr(node_start, i - node_start) == *current) {
                out.erase(node_written);
            } else {
                current = out.substr(node_written);
                out += ':';
            }
        } else if (c != ':') {
            out += out.empty() ? "/" : "";
            if (node_start == string::npos) {
                node_start = i;
                node_written = out.size();
            }
            out += c;
        }
    }
    if (out.size() > 1 && out.back() == '/') {
        out.pop_back();
    }
    return out;
}

string to_database(const string &path)
{
    string out = to_standard(false, path);
    const std::size_t colon = out.starts_with(':') ? 0 : out.find(':', 1);
    if (colon != string::npos) {
        out[colon] = '/';
    }
    return out;
}

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

string taken(char *text)
{
    string copy = text;
    std::free(text);
    return copy;
}

string schema2std(const string &path)
{
    return taken(plugin_path_schema2std(path.c_str()));
}
string data2std(const string &path)
{
    return taken(plugin_path_data2std(path.c_str()));
}
string std2db(const string &path)
{
    return taken(plugin_path_std2db(path.c_str()));
}

// With a check that nothing of the old text remains behind the new end.
string rm_quotes(string path)
{
    EXPECT_EQ(datastore_path_rm_quotes(path.data()), path.data());
    const std::size_t length = std::strlen(path.c_str());
    EXPECT_EQ(path.find_first_not_of('\0', length), string::npos) << path;
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
        {data2std, "/mod-a", "/mod-a"},
        {data2std, "/mod-a/", "/mod-a:"},
        {data2std, "/mod-a:top/", "/mod-a:top"},
        {data2std, "/", "/"},
        {data2std, "", ""},
        {data2std, "/a:x/a:y[k='1/2:3']/a:z", "/a:x/y[k='1/2:3']/z"},
        {std2db, "/mod-a:top/item/mod-b:ext/leaf", "/mod-a/top/item/mod-b:ext/leaf"},
        {std2db, "/mod-a/top/item[name='x']/leaf", "/mod-a/top/item[name='x']/leaf"},
        {std2db, "/mod-a", "/mod-a"},
        {std2db, "", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.convert(c.before), c.after) << c.before;
    }
    const std::pair<const char *, const char *> quoted[] = {
        {R"(/a/b[name="x"]/c)", "/a/b[name=x]/c"},
        {R"(/x[k1="1",k2="2"])", "/x[k1=1,k2=2]"},
        {R"(/x[k=""])", "/x[k=]"},
        {R"(/x[k="a,b"])", R"(/x[k="a,b"])"},
        {R"(/x[k="a\"b"])", R"(/x[k="a\"b"])"},
        {R"(/x[k="v")", R"(/x[k="v")"},
        {R"(/i[n="p/0/1"]/x[v="a=b"])", "/i[n=p/0/1]/x[v=a=b]"},
        {"", ""},
    };
    for (const auto &[before, after] : quoted) {
        EXPECT_EQ(rm_quotes(before), after);
        EXPECT_EQ(without_quotes(before), after) << "the rules themselves";
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
        const string path = text("//::[]ab");
        EXPECT_EQ(schema2std(path), to_standard(true, path)) << path;
        EXPECT_EQ(data2std(path), to_standard(false, path)) << path;
        EXPECT_EQ(std2db(path), to_database(path)) << path;
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
    const auto time = [](const auto &convert, const string &text) {
        std::clock_t best = std::numeric_limits<std::clock_t>::max();
        for (int run = 0; run < 5; ++run) {
            const std::clock_t begin = std::clock();
            (void)convert(text);
            best = std::min(best, std::clock() - begin);
        }
        return static_cast<double>(best);
    };
    const auto repeated = [](const string &unit, std::size_t size) {
        string text;
        while (text.size() < size) {
            text += unit;
        }
        return text;
    };
    for (const char *unit :
         {"=\"", "=\"a\"]", "=\"a", "\\\"=", "=\"\\\"", "/a:b", "a:", "/", "[", "a"}) {
        const string small = repeated(unit, 256 << 10);
        const string large = repeated(unit, 1 << 20);
        for (const auto &convert :
             {std::function(rm_quotes), std::function<string(string)>(data2std)}) {
            double ratio = 16; // four times the length squared; noise only adds to a time
            for (int attempt = 0; attempt < 10 && ratio >= 8; ++attempt) {
                ratio = time(convert, large) / time(convert, small);
            }
            EXPECT_LT(ratio, 8) << unit;
        }
    }
}

} // namespace
