// Path forms and quote removal: edges, and the time they take. What else they make, the fuzz target
// "path" compares with the plainest implementation of each.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"
#include "timing.h"

using Path = test::Fixture;

TEST_F(Path, Edges)
{
    const std::tuple<char *(*)(const char *), const char *, const char *> rows[] = {
        {plugin_path_schema2std, "/m-a:t/m-a:i[m-a:n='x']/m-b:l/", "/m-a:t/i/m-b:l"},
        {plugin_path_data2std, "/", "/"},
        {plugin_path_data2std, nullptr, nullptr},
        {plugin_path_std2db, "", ""},
        {plugin_path_std2db, nullptr, nullptr},
    };
    for (const auto &[convert, before, after] : rows) {
        EXPECT_STREQ(support::heap_text(convert(before)).get(), after);
    }
    EXPECT_EQ(datastore_path_rm_quotes(nullptr), nullptr);
}

TEST_F(Path, TakesTimeInProportionToTheLength)
{
    for (const std::string unit :
         {"=\"", "=\"a\"]", "=\"a", "\\\"=", "=\"\\\"", "/a:b", "[", "a"}) {
        const auto convert = [&](int count) {
            std::string bare = test::repeat(unit, count);
            const support::heap_text standard(plugin_path_data2std(bare.c_str()));
            EXPECT_EQ(datastore_path_rm_quotes(bare.data()), bare.data());
        };
        EXPECT_LT(test::growth(convert, 2000), 2.5) << unit;
    }
}
