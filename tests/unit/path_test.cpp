// Path forms and quote removal: a few examples, and the time they take.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"
#include "timing.h"

#include <algorithm>
#include <cstring>

namespace {

// In a copy, with a check that nothing of the old text remains behind the new end.
char *rm_quotes(const char *text)
{
    char *const path = strdup(text);
    EXPECT_EQ(datastore_path_rm_quotes(path), path);
    const auto removed = static_cast<std::ptrdiff_t>(std::strlen(text) - std::strlen(path));
    EXPECT_EQ(std::count(path + std::strlen(path), path + std::strlen(text), '\0'), removed);
    return path;
}

using Path = test::Fixture;

TEST_F(Path, Examples)
{
    const std::tuple<char *(*)(const char *), const char *, const char *> rows[] = {
        {plugin_path_schema2std, "/m-a:t/m-a:i[m-a:n='x']/m-b:l", "/m-a:t/i/m-b:l"},
        {plugin_path_data2std, "/m-a:top/:x//y/m-ab:z/", "/m-a:top/x//y/m-ab:z"},
        {plugin_path_data2std, "/", "/"},
        {plugin_path_std2db, "/m-a:top/item/m-b:ext/leaf", "/m-a/top/item/m-b:ext/leaf"},
        {plugin_path_std2db, "", ""},
        {rm_quotes, R"(/x[k1="p/1=",k2=""]/y[k="2"])", "/x[k1=p/1=,k2=]/y[k=2]"},
        {rm_quotes, R"(/x[k="a\"b="c"])", R"(/x[k="a\"b="c"])"},
    };
    for (const auto &[convert, before, after] : rows) {
        EXPECT_STREQ(support::heap_text(convert(before)).get(), after) << before;
    }
    for (const auto convert : {plugin_path_data2std, plugin_path_std2db}) {
        EXPECT_EQ(convert(nullptr), nullptr);
    }
    EXPECT_EQ(datastore_path_rm_quotes(nullptr), nullptr);
}

TEST_F(Path, TakesTimeInProportionToTheLength)
{
    for (const std::string unit :
         {"=\"", "=\"a\"]", "=\"a", "\\\"=", "=\"\\\"", "/a:b", "[", "a"}) {
        const auto convert = [&](int count) {
            const support::heap_text bare(rm_quotes(test::repeat(unit, count).c_str()));
            const support::heap_text standard(plugin_path_data2std(bare.get()));
        };
        EXPECT_LT(test::growth(convert, 2000), 2.5) << unit;
    }
}

} // namespace
