// Path forms and quote removal: the time they take. What they make, the fuzz target "path" compares
// with the plainest implementation of each.
#include "conf_plugin/plugin_internal.h"
#include "test_support.h"
#include "timing.h"

using Path = test::Fixture;

TEST_F(Path, NullStaysNull)
{
    EXPECT_EQ(plugin_path_schema2std(nullptr), nullptr);
    EXPECT_EQ(plugin_path_data2std(nullptr), nullptr);
    EXPECT_EQ(plugin_path_std2db(nullptr), nullptr);
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
