// Values of trees, keys of paths, refusals with a text.
#include "conf_values.h"

#include "demo_plugin.h"

#include <algorithm>
#include <climits>
#include <malloc.h>

using namespace test;

namespace {

// What a reader returned, and what it left in its output: "1 text", "-1 before".
std::string outcome(int found, const std::string &value)
{
    return std::to_string(found) + ' ' + value;
}

std::string read_text(xmlNode *node)
{
    const char *text = "before";
    const int found = econf_node_text(node, &text);
    return outcome(found, text);
}

std::string read_number(xmlNode *node, long long least = LLONG_MIN, long long most = LLONG_MAX)
{
    long long number = 77;
    const int found = econf_node_number(node, least, most, &number);
    return outcome(found, std::to_string(number));
}

std::string read_unsigned(xmlNode *node, unsigned long long most = ULLONG_MAX)
{
    unsigned long long number = 77;
    const int found = econf_node_unsigned(node, 1, most, &number);
    return outcome(found, std::to_string(number));
}

std::string read_boolean(xmlNode *node)
{
    bool_t value = 77;
    const int found = econf_node_boolean(node, &value);
    return outcome(found, std::to_string(value));
}

std::string read_choice(xmlNode *node)
{
    static const char *const words[] = {"auto", "half", "full", nullptr};
    int index = 77;
    const int found = econf_node_choice(node, words, &index);
    return outcome(found, std::to_string(index));
}

std::string key_of(const char *path, const char *step, const char *key, std::size_t room = 64)
{
    std::string value(room, '#');
    const int found = econf_path_key(path, step, key, value.data(), room);
    return outcome(found, room == 0 ? "" : value.c_str());
}

using Values = Fixture;

TEST_F(Values, TextHoweverItIsWritten)
{
    const struct {
        std::string content, text;
        const char *afterwards = nullptr; // where reading changes the tree
    } rows[] = {
        {"", "1 "},
        {" a b ", "1  a b "},
        {"a&amp;&#98;", "1 a&b"},
        {"<![CDATA[a<b]]>", "1 a<b"},
        {"<!--x-->a", "1 a"},
        {"<!--x--><?y z?>", "1 "},
        {"a<!--x-->b", "1 ab", "<v>ab<!--x--></v>"},
        {"<!--x-->ad<![CDATA[m<]]><?y?>in", "1 adm<in", "<v><!--x-->adm&lt;in<?y?></v>"},
        {"<![CDATA[]]]]><![CDATA[>]]>", "1 ]]>"},
        {"<w>a</w>", "-1 before"},
        {"a<w/>", "-1 before"},
    };
    for (const auto &row : rows) {
        const node_ptr node(parse("<v>" + row.content + "</v>"));
        const std::string as_parsed = print(node.get());
        EXPECT_EQ(read_text(node.get()), row.text) << row.content;
        EXPECT_EQ(read_text(node.get()), row.text) << row.content;
        EXPECT_EQ(print(node.get()), row.afterwards == nullptr ? as_parsed : row.afterwards);
    }
    const node_ptr node(parse("<v a='1&amp;2'>t<w/><!--c--></v>"));
    EXPECT_EQ(read_text(reinterpret_cast<xmlNode *>(node->properties)), "1 1&2");
    EXPECT_EQ(read_text(node->children), "1 t");
    EXPECT_EQ(read_text(node->last), "-1 before");

    // A reference to an entity could stand for anything.
    xmlAddChild(node->children->next, xmlNewReference(nullptr, BAD_CAST "e"));
    EXPECT_EQ(read_text(node->children->next), "-1 before");
    // libxml2 makes nodes of text without one.
    xmlAddChild(node->last->prev, xmlNewText(nullptr));
    EXPECT_EQ(read_text(xmlAddChild(node.get(), xmlNewText(nullptr))), "1 ");
}

TEST_F(Values, WordsAndNumbers)
{
    const std::string huge = "18446744073709551615", least = "-9223372036854775808";
    const struct {
        std::string content, number, positive, boolean = "-1 77", choice = "-1 77";
    } rows[] = {
        {"1500", "1 1500", "1 1500"},
        {" \r\n\t42 ", "1 42", "1 42"},
        {"<!--8-->4<![CDATA[2]]>", "1 42", "1 42"},
        {"0", "1 0", "-1 77"},
        {"-0", "1 0", "-1 77"},
        {"-1", "1 -1", "-1 77"},
        {least, "1 " + least, "-1 77"},
        {"-9223372036854775809", "-1 77", "-1 77"},
        {"9223372036854775807", "1 9223372036854775807", "1 9223372036854775807"},
        {"9223372036854775808", "-1 77", "1 9223372036854775808"},
        {huge, "-1 77", "1 " + huge},
        {"-" + huge, "-1 77", "-1 77"},
        {"18446744073709551616", "-1 77", "-1 77"},
        {"184467440737095516150", "-1 77", "-1 77"},
        {"", "-1 77", "-1 77"},
        {"-", "-1 77", "-1 77"},
        {"+1", "-1 77", "-1 77"},
        {"010", "-1 77", "-1 77"},
        {"0x1F", "-1 77", "-1 77"},
        {"1 2", "-1 77", "-1 77"},
        {"1/", "-1 77", "-1 77"},
        {"1<x/>", "-1 77", "-1 77"},
        {"true", "-1 77", "-1 77", "1 1"},
        {" <![CDATA[false]]>", "-1 77", "-1 77", "1 0"},
        {"True", "-1 77", "-1 77"},
        {"auto", "-1 77", "-1 77", "-1 77", "1 0"},
        {"<!---->full\n", "-1 77", "-1 77", "-1 77", "1 2"},
        {"ful", "-1 77", "-1 77"},
        {"full full", "-1 77", "-1 77"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.content);
        const node_ptr node(parse("<v>" + row.content + "</v>"));
        EXPECT_EQ(read_number(node.get()), row.number);
        EXPECT_EQ(read_unsigned(node.get()), row.positive);
        EXPECT_EQ(read_boolean(node.get()), row.boolean);
        EXPECT_EQ(read_choice(node.get()), row.choice);
    }
    const node_ptr ten(parse("<v>10</v>"));
    EXPECT_EQ(read_number(ten.get(), 10, 10) + read_unsigned(ten.get(), 10), "1 101 10");
    EXPECT_EQ(read_number(ten.get(), 11) + read_number(ten.get(), 0, 9), "-1 77-1 77");
    EXPECT_EQ(read_unsigned(ten.get(), 9), "-1 77");
}

TEST_F(Values, NodesOfAName)
{
    const node_ptr node(parse("<r xmlns:p='urn:p'>t<a>1</a><b/><p:a>2</p:a><!--a--><c/></r>"));
    std::string found;
    for (xmlNode *a = econf_node_child(node.get(), "a"); a != nullptr;
         a = econf_node_next(a, "a")) {
        found += read_text(a) + ',';
    }
    for (xmlNode *any = econf_node_child(node.get(), nullptr); any != nullptr;
         any = econf_node_next(any, nullptr)) {
        found += reinterpret_cast<const char *>(any->name);
    }
    EXPECT_EQ(found, "1 1,1 2,abac");
    EXPECT_EQ(econf_node_find(node->children->next, "a"), node->children->next);
    EXPECT_EQ(econf_node_child(node->children, "a"), nullptr) << "a text has no children";
}

TEST_F(Values, KeysOfPaths)
{
    const struct {
        const char *path, *step, *key;
        std::string value;
        std::size_t room = 64;
    } rows[] = {
        {"/m:l/e[name=a]/leaf", "e", "name", "1 a"},
        {"/m:l/e[name=a]/leaf", "leaf", "name", "0 "},
        {"/m:l/e[name=a]/leaf", "l", "name", "0 "},
        {"/m:l/e[name=a]/leaf", nullptr, "nam", "0 "},
        {"/m:l/m:e[m:name=a]", "e", "name", "1 a"},
        {"/m:l/m:e[m:name=a]", "m:e", "m:name", "1 a"},
        {"/m:l/m:e[m:name=a]", "n:e", "name", "0 "},
        {"/l/e[name=\"a,b\"]", "e", "name", "1 a,b"},
        {"/l/e[name=\"a]/x[name=b]\"]/y", "e", "name", "1 a]/x[name=b]"},
        {"/l/e[name=\"a\\\"b\\\\\"]", "e", "name", "1 a\"b\\"},
        {"/l/e[k='x']", nullptr, "k", "1 x"},
        {"/l/e[k='x]',j=\"y\"]", "e", "k", "1 x]"},
        {"/l/e[k='x]',j=\"y\"]", "e", "j", "1 y"},
        {"/l/e[k='x\\']", "e", "k", "1 x\\"},
        {"/l/e[k='x]", "e", "k", "1 'x"},
        {"/l/e[k='x,j=it's]", "e", "k", "1 'x"},
        {"/l/e[k1=1,k2=2]", "e", "k2", "1 2"},
        {"/l/e[k1=1][k2=2]/x", "e", "k2", "1 2"},
        {"/l/e[n=p/0/1]/x[v=a=b]", "x", "v", "1 a=b"},
        {"/l/e[n=p/0/1]/x[v=a=b]", "e", "n", "1 p/0/1"},
        {"/l/e[k=]", "e", "k", "1 "},
        {"/l/e[k=\"\"]", "e", "k", "1 "},
        {"/l/x[.='a b']", "x", ".", "1 a b"},
        {"/l/e[3]/f[k=a]", "f", "k", "1 a"},
        {"/u[name=a]/u[name=b]/g[name=c]/h", "u", "name", "1 b"},
        {"/u[name=a]/u[name=b]/g[name=c]/h", nullptr, "name", "1 c"},
        {"/u[name=longer]/u[name=b]", nullptr, "name", "1 b"},
        {"/l/e[k=abc]", "e", "k", "1 abc", 4},
        {"/l/e[k=abc]", "e", "k", "-1 ", 3},
        {"/l/e[k=]", "e", "k", "1 ", 1},
        {"/l/e[k=]", "e", "k", "-1 ", 0},
        {"/l/e[k=a", "e", "k", "-1 "},
        {"/l/e[k=\"a]", "e", "k", "-1 "},
        {"/l/e[k=\"a\\", "e", "k", "-1 "},
        {"/l/e[k=\"a\"b]", "e", "k", "-1 "},
        {"/l/e[k=a]/f[", "e", "k", "-1 "},
        {"/l/e[k=a]/f[x", "e", "k", "-1 "},
        {"", "e", "k", "0 "},
        {nullptr, "e", "k", "0 "},
        {"/l/e[k=a]", "e", nullptr, "0 "},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(key_of(row.path, row.step, row.key, row.room), row.value)
            << text_of(row.path) << ' ' << text_of(row.step) << ' ' << text_of(row.key);
    }
    EXPECT_EQ(econf_path_key("/l[k=a]", "l", "k", nullptr, 9), -1);
}

TEST_F(Values, Trees)
{
    const node_ptr node(econf_node_build("u", "name", "a<b&c", "shell", "", "home", nullptr, NULL));
    EXPECT_EQ(print(node.get()), "<u><name>a&lt;b&amp;c</name><shell/><home/></u>");
    const std::string large(10000, 'x');
    EXPECT_NE(econf_node_add(node.get(), "id", "%d&%s", 7, large.c_str()), nullptr);
    xmlNode *const inner = econf_node_add(node.get(), "in", nullptr);
    EXPECT_NE(econf_node_add(inner, "on", "%s", "true"), nullptr);
    EXPECT_EQ(read_text(econf_node_child(node.get(), "id")), "1 7&" + large);
    EXPECT_EQ(print(inner), "<in><on>true</on></in>");
}

TEST_F(Values, NullIsAbsent)
{
    const node_ptr node(parse("<v>1</v>"));
    EXPECT_EQ(read_text(nullptr), "0 before");
    EXPECT_EQ(read_number(nullptr) + read_unsigned(nullptr), "0 770 77");
    EXPECT_EQ(read_boolean(nullptr) + read_choice(nullptr), "0 770 77");
    EXPECT_EQ(econf_node_text(node.get(), nullptr), -1);
    EXPECT_EQ(econf_node_number(node.get(), 0, 9, nullptr), -1);
    EXPECT_EQ(econf_node_unsigned(node.get(), 0, 9, nullptr), -1);
    EXPECT_EQ(econf_node_boolean(node.get(), nullptr), -1);
    int index = 0;
    EXPECT_EQ(econf_node_choice(node.get(), nullptr, &index), -1);
    EXPECT_EQ(econf_node_find(nullptr, "v"), nullptr);
    EXPECT_EQ(econf_node_child(nullptr, "v"), nullptr);
    EXPECT_EQ(econf_node_next(nullptr, "v"), nullptr);
    EXPECT_EQ(econf_node_build(nullptr, NULL), nullptr);
    EXPECT_EQ(econf_node_add(nullptr, "v", nullptr), nullptr);
    EXPECT_EQ(econf_node_add(node.get(), nullptr, nullptr), nullptr);
    econf_node_free_list(nullptr);
}

std::string freed; // the beginning of each block

void watch_free(void *block)
{
    freed.append(static_cast<const char *>(block),
                 std::min<std::size_t>(malloc_usable_size(block), 8));
    std::free(block);
}

TEST_F(Values, ListIsWiped)
{
    const auto list = [] {
        xmlNode *node = parse("<u a='s3cret-1'>s3cret-2<v><![CDATA[s3cret-3]]></v><!--s3cret-4-->"
                              "<?pi s3cret-5?></u>");
        node->next = parse("<u b='s3cret-6'><w>s3cret-7<x>s3cret-8</x></w></u>");
        node->next->prev = node;
        return node;
    };
    const auto joined = [] {
        xmlNode *node = parse("<u>s3cret-1<![CDATA[s3cret-2]]><!--c-->s3cret-3</u>");
        read_text(node);
        return node;
    };
    xmlFreeFunc plain = nullptr;
    xmlMallocFunc allocate = nullptr;
    xmlReallocFunc enlarge = nullptr;
    xmlStrdupFunc copy = nullptr;
    xmlMemGet(&plain, &allocate, &enlarge, &copy);
    const auto freed_by = [&](xmlNode *node, void (*release)(xmlNode *)) {
        xmlMemSetup(watch_free, allocate, enlarge, copy);
        freed.clear();
        release(node);
        xmlMemSetup(plain, allocate, enlarge, copy);
        return freed.find("s3cret") == std::string::npos;
    };
    EXPECT_FALSE(freed_by(list(), xmlFreeNodeList)) << "the test sees nothing";
    EXPECT_TRUE(freed_by(list(), econf_node_free_list));
    xmlNode *pieces = parse("<u>s3cret-1<![CDATA[s3cret-2]]><!--c-->s3cret-3</u>");
    EXPECT_TRUE(freed_by(pieces, [](xmlNode *node) { read_text(node); })) << "joining";
    econf_node_free_list(pieces);
    EXPECT_TRUE(freed_by(joined(), econf_node_free_list));
}

using Refusals = DemoFixture;

TEST_F(Refusals, CarryTheirText)
{
    const struct {
        std::function<int()> refuse;
        std::string answer;
    } rows[] = {
        {[] { return econf_plugin_refuse(22, "mtu %d < %s", 60, "68%s"); },
         failed("22", "mtu 60 &lt; 68%s")},
        {[] { return econf_plugin_refuse(0, "no"); }, failed("-1", "no")},
        {[] { return econf_plugin_refuse(5, nullptr); }, failed("5")},
    };
    for (const auto &row : rows) {
        act.inside = [&] { act.result = row.refuse(); };
        EXPECT_EQ(handle(config("/a")), row.answer);
    }
    EXPECT_EQ(econf_plugin_refuse(7, "%s", "outside of a callback"), 7);
}

} // namespace
