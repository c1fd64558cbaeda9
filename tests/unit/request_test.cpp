// Requests of the plugin, each made twice: by a process of its own over the wire, and inside the
// daemon, which has injected its hooks. A plugin must see the same both times, and be asked the
// same, but for what the table names.
#include "demo_plugin.h"
#include "timing.h"

using namespace test;

namespace {

const char *const path = "/p&q";
xmlNode *const data = nodes_of("<a>1</a><b><c/></b>text")(nullptr);

// What the plugin sees: the result and the list, whose former value must be gone.
auto read(int (*call)(int, const char *, xmlNode **), int old_flag)
{
    return [=] {
        xmlNode untouched{};
        xmlNode *list = &untouched;
        const int result = call(old_flag, path, &list);
        EXPECT_NE(list, &untouched);
        std::string seen = std::to_string(result) + ' ' + list_of(list);
        xmlFreeNodeList(list);
        return seen;
    };
}

template <auto call, auto... given>
std::string write()
{
    return std::to_string(call(given...)) + ' ';
}

constexpr auto push = [] { return econf_plugin_push(path, data); };
constexpr auto deploy = [](int oper) { return econf_plugin_config_deployment(path, oper, data); };

const std::string at = "<path>/p&amp;q</path>", sent = "<data><a>1</a><b><c/></b>text</data>";
const std::string neighbours = "<prev>/x[k=\"a&amp;b\"]</prev><next>/x[k=\"a,b\"]</next><other>/x"
                               "[k=\"v\"]</other><next/><deep><prev>/x[k=\"v\"]</prev></deep>";
const struct row {
    std::string method;
    std::function<std::string()> call;
    std::string params, given = {}, seen = given; // the list that the daemon answers with
    std::string params_inside = params;
} rows[] = {
    {"pull", read(econf_plugin_pull, 0), at, "<a>1</a><b x=\"2\"><c/></b>"},
    {"pull", read(econf_plugin_pull, 5), "<old/>" + at},
    {"locate", read(econf_plugin_locate, 0), at},
    {"locate", read(econf_plugin_locate, -1), "<old/>" + at, neighbours,
     "<prev>/x[k=a&amp;b]</prev>" + neighbours.substr(neighbours.find("<next>"))},
    {"push", write<push>, at + sent},
    {"config_deployment", write<deploy, 0>, at + "<oper-type>add</oper-type>" + sent},
    {"config_deployment", write<deploy, 1>, at + "<oper-type>delete</oper-type>" + sent},
    {"config_deployment", write<deploy, -1>, at + "<oper-type>update</oper-type>" + sent},
    {"save_deployment", write<econf_plugin_save_deployment>, ""},
    {"copy_deployment_to_memory", write<econf_plugin_copy_running_to_deployment, 1>,
     "<override>1</override>"},
    {"copy_deployment_to_memory", write<econf_plugin_copy_running_to_deployment, 2>,
     "<override>0</override>", "", "", "<override>2</override>"},
};

class RequestTest : public PluginFixture {
protected:
    // One exchange over the wire; returns what is logged at INFO first, second and last.
    std::string check(const row &row, const std::string &answer, const std::string &seen)
    {
        SCOPED_TRACE(row.method + answer);
        clear_debug_file();
        context->rpc_id = 3;
        const std::string params = "<params>" + row.params + "</params>";
        EXPECT_EQ(request_of([&] { EXPECT_EQ(row.call(), seen); }, answer),
                  rpc(row.method, row.params.empty() ? "<params/>" : params, "3"));
        const strings info = debug_texts(DBG_INFO);
        return info.at(0) + '\n' + info.at(1) + '\n' + info.back() + '\n';
    }
};

// The daemon could not parse it, and would not answer.
TEST_F(RequestTest, WhatIsNotUtf8FailsAtOnce)
{
    start();
    const node_ptr latin(xmlNewText(BAD_CAST "Gr\xf6\xdf"
                                             "e"));
    const node_ptr unnamed(xmlNewNode(nullptr, BAD_CAST "1"));
    const std::string cause = "Dump rpc node failed.\nPlugin demo send rpc to confd failed.";
    for (xmlNode *each : {latin.get(), unnamed.get()}) {
        EXPECT_EQ(econf_plugin_push(path, each), -1);
        EXPECT_EQ(take_errors(), cause + "\nPlugin demo publish data failed.");
    }
    xmlNode *list = nullptr;
    EXPECT_EQ(econf_plugin_pull(0, "/\xf6", &list), -1);
    EXPECT_EQ(take_errors(), cause);
    EXPECT_EQ(peer->received(), strings());
    expect_idle();
    end();
    econf_plugin_subpub_info_t info{};
    EXPECT_EQ(econf_plugin_init("d\xe9mo", &info), -1);
    daemon.forget_connection();
}

TEST_F(RequestTest, OverTheWire)
{
    start();
    for (const row &row : rows) {
        const bool pulls = row.method == "pull", reads = pulls || row.method == "locate";
        const std::string list = pulls ? "<data>" + row.given + "</data>" : row.given;
        check(row, "<result>" + list + "</result>", "0 " + row.seen);
        EXPECT_EQ(take_errors(), "");
        check(row, error("4", "full"), reads ? "0 " : "-1 "); // to a reader, nothing is there
        EXPECT_EQ(take_errors().substr(0, 27), reads ? "" : "Confd reply error(full) for");
    }
    check(rows[0], "<result><x/><data><a/></data><data><b/></data></result>", "0 <a/>");
    check(rows[0], "<result><x/></result>", "0 ");
    check(rows[0], "", "-1 ");
    check(rows[2], "<result><prev>/x[k=\"v\"]<z/>more</prev></result>", "0 <prev>/x[k=v]</prev>");
    EXPECT_EQ(check(rows[4], "<result/>", "0 "), "Build push packet, path:/p&q, name:demo\n"
                                                 "Begin to send push packet, name:demo\n"
                                                 "End to send push packet, name:demo\n");
    EXPECT_EQ(check(rows[7], "<result/>", "0 "),
              "Build config deployment packet, path:/p&q, oper:4294967295, name:demo\n"
              "Begin to send config deployment packet, name:demo\n"
              "End to send config deployment packet, name:demo\n");
    EXPECT_EQ("<data>" + list_of(data) + "</data>", sent) << "the plugin's own";
    peer->close();
    EXPECT_EQ(rows[0].call(), "-1 ");
}

TEST_F(RequestTest, TimeOfAPullGrowsWithItsSizeOnly)
{
    start();
    econf_plugin_config_debug(DBG_ALL, 0); // a line for each read would cost more than the rest
    const auto pull = [&](int entries) {
        const char *entry = "<entry><name>eth10</name><mtu>1500</mtu><on>true</on></entry>";
        const std::string list = "<result><data>" + repeat(entry, entries) + "</data></result>";
        xmlNode *got = nullptr;
        request_of([&] { EXPECT_EQ(econf_plugin_pull(0, path, &got), 0); }, list);
        EXPECT_NE(got, nullptr);
        xmlFreeNodeList(got);
    };
    EXPECT_LT(growth(pull, 30000), 2) << "repeating work for what came before makes it 4";
}

// ---- inside the daemon -------------------------------------------------------------------------

std::string asked, given; // of the hook that was called, and by it
int refusal;

int ask(const std::string &params, xmlNode **list = nullptr)
{
    asked = params;
    if (list != nullptr) {
        *list = refusal != 0 ? data : nodes_of(given)(nullptr);
    }
    return refusal;
}

std::string shown(const std::string &of, const std::string &oper, const xmlNode *list)
{
    return (of == path ? at : of) + oper + (list == data ? sent : "");
}

int on_read(bool_t old, const char *of, xmlNode **list)
{
    return ask((old ? "<old/>" : "") + shown(of, "", nullptr), list);
}

confd_plugin_callback_t hooks{
    on_read,
    on_read,
    [](const char *of, xmlNode *list) { return ask(shown(of, "", list)); },
    [](const char *of, int oper, xmlNode *list) {
        const std::string word = oper == 0 ? "add" : oper == 1 ? "delete" : "update";
        return ask(shown(of, "<oper-type>" + word + "</oper-type>", list));
    },
    [] { return ask(""); },
    [](int flag) { return ask("<override>" + std::to_string(flag) + "</override>"); },
    [](int code, const char *text) { asked = std::to_string(code) + text; },
    nullptr};

TEST_F(RequestTest, InsideTheDaemon)
{
    confd_plugin_callback_t no_hooks{};
    for (const row &row : rows) {
        SCOPED_TRACE(row.method);
        get_plugin_from_hash()->confd_hooks = &hooks;
        given = row.given;
        for (const int result : {0, 4}) {
            refusal = result;
            EXPECT_EQ(row.call(), result == 0 ? "0 " + given : "4 ");
            EXPECT_EQ(asked, row.params_inside);
        }
        EXPECT_EQ(take_errors(), "");
        get_plugin_from_hash()->confd_hooks = &no_hooks;
        EXPECT_EQ(row.call(), "-1 ");
        const bool copies = row.method.starts_with("copy");
        const std::string name = copies ? "copy_running_to_deployment" : row.method;
        EXPECT_EQ(take_errors(), "Confd doesn't inject conf_plugin_" + name + " function.");
    }
    econf_plugin_error(4, "text");
    EXPECT_EQ(take_errors(), "Confd doesn't inject conf_plugin_error function.");
    EXPECT_EQ(conf_send_reply(4, data, data), -1);
    EXPECT_EQ(take_errors(), "WARN: conf_send_reply is obsolete.");
    get_plugin_from_hash()->confd_hooks = &hooks;
    econf_plugin_error(4, "text");
    EXPECT_EQ(asked, "4text");
}

TEST_F(RequestTest, NothingIsSentUnlessActiveOrWithNullArguments)
{
    const std::string not_ready = "Plugin context is not ready or not be activated.";
    for (const bool registered : {false, true}) {
        if (registered) {
            start();
            context->bit_activate = 0;
        }
        for (const row &row : rows) {
            EXPECT_EQ(row.call(), "-1 ");
            EXPECT_EQ(take_errors(), not_ready) << row.method;
        }
        econf_plugin_error(4, "text");
        EXPECT_EQ(take_errors(), not_ready);
    }
    EXPECT_EQ(context->err_msg, nullptr);

    context->bit_activate = 1;
    xmlNode *list = data;
    const std::string wrong = "Input parameters error(path=", no_path = wrong + "(nil), result=";
    const std::string no_data = wrong + place(path) + ", result=(nil)).";
    const std::pair<std::function<int()>, std::string> calls[] = {
        {[&] { return econf_plugin_pull(0, nullptr, &list); }, no_path + place(&list) + ")."},
        {[] { return econf_plugin_locate(0, path, nullptr); }, no_data},
        {[] { return econf_plugin_push(path, nullptr); }, no_data},
        {[] { return econf_plugin_push(nullptr, data); }, no_path + place(data) + ")."},
        {[] { return econf_plugin_config_deployment(path, 0, nullptr); }, no_data},
        {[] { return econf_plugin_config_deployment(nullptr, 0, data); },
         no_path + place(data) + ")."},
    };
    for (const auto &[call, report] : calls) {
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(take_errors(), report);
    }
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(peer->received(), strings());
}

} // namespace
