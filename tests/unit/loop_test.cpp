// The event loop: what each request calls and what is answered, byte for byte; and callbacks that
// change the plugin.
#include "demo_plugin.h"

#include <cstring>
#include <libxml/parser.h>
#include <sys/wait.h>

using namespace test;

namespace {

// One request: how a callback is called, what is answered, and what stands in the debug file.
struct row {
    std::string request, call, answer;
    behaviour does = {};
    const char *log = "";
};

class LoopTest : public DemoFixture {
protected:
    void check(const std::vector<row> &rows)
    {
        for (const row &row : rows) {
            SCOPED_TRACE(::testing::Message() << &row - rows.data() << ": " << row.request);
            clear_debug_file();
            act = row.does;
            EXPECT_EQ(handle(row.request), row.answer);
            EXPECT_EQ(called, row.call);
            std::string log;
            for (const std::string &line : debug_lines()) {
                log += line + '\n';
            }
            EXPECT_NE(log.find(row.log), std::string::npos) << log;
            EXPECT_EQ(std::tuple(context->err_code, context->err_msg), std::tuple(0, nullptr));
        }
    }
};

std::string callback(const std::string &index)
{
    return "<callback>" + index + "</callback>";
}

std::string result(const std::string &content)
{
    return succeeded("<result>" + content + "</result>");
}

TEST_F(LoopTest, RefusesWhatHasNoCallback)
{
    const std::string none = failed("-1", "Cann't find the callback function.");
    const std::string invalid = failed("-1", "Callback index is invalid.");
    const std::string invalid_publish = failed("-1", "Error publish rpc message.");
    const char *const not_found = "Cann't find the callback for path:/a oper:0 priority:0\n";
    std::vector<row> rows = {
        {publish("config", "<path>/a</path>", callback("5")), "", none, {}, not_found},
        {publish("Config", ""), "", failed("-1", "Unknown publish type.")},
        {rpc("publish", "<params><type>config</type></params>", "17"), "", invalid_publish},
        {rpc("publish", "<params><info/></params>", "17"), "", invalid_publish},
        {rpc("no&lt;", "<params/>", "17"), "",
         failed("-1", "Method &lt;no&lt;&gt; doesn't be supported")},
        {rpc("no", "<params/>", "0"), "", "", {}, "[WARN] - Receive an unknown rpc method no.\n"},
        {"<rpc><method>kickoff</method></rpc>", "", "", {}, "] - Plugin demo parse rpc failed.\n"},
        {"<rpc>", "", "", {}, "[DEBUG] - Plugin demo parse message failed.\n"},
    };
    // Callbacks of the other kinds take other arguments; 0 is the kick-off, 4 has no function.
    for (const std::string index : {"-1", "0", "2", "3", "4", "4294967297"}) {
        rows.push_back({publish("config", "", callback(index)), "", none});
    }
    for (const std::string index : {"-1", "0", "1", "4", "5"}) {
        const std::string answer = index == "-1" || index == "5" ? invalid : none;
        rows.push_back({operate("<a/>", index == "1" ? "2" : index), "", answer});
        rows.push_back({subscribe("", index), "", answer});
    }
    check(rows);
}

TEST_F(LoopTest, ConfigurationChanges)
{
    const std::string call = "config 3 1 0 10 /a", request = config("/a"), ok = succeeded();
    const std::string large = "2147483648", none = "config -1 0 0 0 null";
    const char *const unsent = "[ERROR] - Plugin demo send reply for publish rpc failed.\n";
    check({
        {request, call, failed("22"), {22}, "result: 22 for path:/a oper:1 priority:10 time consu"},
        {request, call, failed("7", "a &lt; %d &amp; c"), records(1, 7, "a < %d & c")},
        {request, call, failed("7"), records(1, 7, nullptr)},
        {request, call, reply("<error><code>7</code><message/></error>", "17"), records(1, 7, "")},
        {request, call, ok, records(1, 0, "fine")},
        {request, call, ok, records(0, 7, "never mind")},
        {config("/a/b[name=\"x\"]/c"), "config 3 1 0 10 /a/b[name=x]/c", ok},
        {rpc("publish", "<params><info/><callback>1</callback><type>config</type></params>", "17"),
         none, ok},
        // The last of repeated elements counts, unknown ones do not; nor does text behind a
        // comment.
        {publish("operate",
                 "<oper-type>1</oper-type><oper-type>2</oper-type><more-flag>5</more-flag><x/>"
                 "<more-flag/><priority><!--9-->9</priority><path>/a</path><path>/b</path>",
                 "<x/><type>config</type><session-id>8</session-id>" + callback("4") +
                     callback("1")),
         "config 8 2 5 0 /b", ok},
        {publish("config", "<path>/a</path><path/>"), "config 3 0 0 0 null", ok},
        {publish("config",
                 "<oper-type> \t+12x</oper-type><more-flag>x1</more-flag>"
                 "<priority>-99999999999</priority><path>/a</path>",
                 "<callback>01</callback><session-id>99999999999999999999</session-id>"),
         "config 2147483647 12 0 -2147483648 /a", ok},
        {with_id(request, large), call, reply(error("22", default_error), large), {22}},
        {with_id(request, "x"), call, "", {22}, unsent},
        {kick_off, "kick-off", ok, {}, "[INFO] - Plugin demo kickoff now."},
        {kick_off, "kick-off", ok, records(0, 3, "x"), "[WARN] - Plugin kickoff have error x now."},
        {with_id(kick_off, "0"), "kick-off", "", {}, unsent},
    });
    context->cbs[0] = nullptr;
    check({{kick_off, "", ok}});

    // Refusals of the initial configuration are counted.
    g_rdb_recovery_status = 0;
    act = {5};
    EXPECT_EQ(handle(config("/a", "32769")), failed("5"));
    EXPECT_EQ(handle(config("/a", "16385")), failed("5"));
    EXPECT_EQ(handle(config("/a", "16385")), failed("5"));
    act = {};
    EXPECT_EQ(handle(config("/a", "16385")), ok);
    EXPECT_EQ(conf_recovery_status(), 2);
}

TEST_F(LoopTest, Operations)
{
    const std::string input = "<a>1</a><b><c/><d/></b>", request = operate(input);
    const std::string call = "operate 3 " + input;
    const auto give_input = [](xmlNode *in) { return in; };
    const node_ptr own(parse("<own><x/><y><z>1</z></y><w/></own>"));
    const auto part_of_own = [&](xmlNode *) { return own->children->next; };
    xmlDoc *const doc = xmlReadDoc(BAD_CAST "<own><shared>1</shared></own>", nullptr, nullptr, 0);
    const auto unlinked = [=](xmlNode *) {
        xmlNode *node = xmlDocGetRootElement(doc)->children;
        xmlUnlinkNode(node);
        return node; // its strings belong to the document's dictionary
    };
    const auto list_of_document = [=](xmlNode *) {
        xmlNode *list = nodes_of("<s>1</s><t/>")(nullptr);
        xmlSetListDoc(list, doc);
        return list;
    };
    check({
        {request, call, result("<ok/>")},
        {request, call, result("<o>2</o>text<p/>"), gives(nodes_of("<o>2</o>text<p/>"))},
        {request, call, result(input), gives(give_input)},
        {request, call, result("<c/><d/>"), gives([](xmlNode *in) { return in->next->children; })},
        {request, call, result("<y><z>1</z></y><w/>"), gives(part_of_own)},
        {request, call, result("<shared>1</shared>"), gives(unlinked)},
        {request, call, result("<ok/>"), records(0, 9, "stale")},
        {request, call, failed("5"), {5, {}, nodes_of("<o/><p/>")}},
        {request, call, failed("5"), {5, {}, give_input}},
        {request, call, failed("5"), {5, {}, part_of_own}},
    });
    EXPECT_EQ(print(own.get()), "<own><x/><y><z>1</z></y><w/></own>");

    const std::string path = "<path>/a[k=\"x&amp;y\"]</path>", status = "status 4 /a[k=\"x&y\"] f";
    const std::string asks = subscribe(path + "<filter>f</filter>");
    check({
        {asks, status, result(path + "<data/>")},
        {asks, status, result(path + "<data><s>1</s><t/></data>"), gives(nodes_of("<s>1</s><t/>"))},
        {asks, status, result(path + "<data><s>1</s><t/></data>"), gives(list_of_document)},
        {asks, status, result(path + "<data><x/></data>"),
         gives([&](xmlNode *) { return own->children; })},
        {rpc("subscribe", "<params><filter/><x/><callback>2</callback></params>", "17"),
         "status -1 null null", result("<path/><data/>")},
        {asks, status, result(path + "<data/>"), records(0, 9, "stale")},
        {asks, status, failed("5"), {5, {}, nodes_of("<s/>")}},
        {asks, status, failed("6", "no"), records(5, 6, "no")},
    });
    xmlFreeDoc(doc);
}

// The daemon waits for each answer, so it gets one that can be parsed, whatever a callback hands
// over.
TEST_F(LoopTest, AnswersAreWellFormed)
{
    const std::string call = "operate 3 <a/>", status = "status 4 null null";
    const std::string mended = "Gr\ufffd\ufffde\ufffd\ufffd\ufffd \u00f6\ufffd";
    const auto latin = [](const char *name) {
        return gives([=](xmlNode *) {
            xmlNode *node = xmlNewNode(nullptr, BAD_CAST name);
            xmlNewProp(node, BAD_CAST "p", BAD_CAST "\xf6");
            xmlAddChild(node, xmlNewText(BAD_CAST "Gr\xf6\xdf"
                                                  "e\xed\xa0\x80\x01\u00f6\xe2"));
            xmlAddChild(node, xmlNewCDataBlock(nullptr, BAD_CAST "\xf6", 1));
            return node;
        });
    };
    const auto document = gives([](xmlNode *) {
        xmlDoc *doc = xmlReadDoc(BAD_CAST "<own/>", nullptr, nullptr, 0);
        return reinterpret_cast<xmlNode *>(doc);
    });
    const auto comment = gives([](xmlNode *) { return xmlNewComment(BAD_CAST "a--b"); });
    const auto entity = gives([](xmlNode *) { return xmlNewReference(nullptr, BAD_CAST "e"); });
    const std::string nodes = "<o p=\"&#xFFFD;\">" + mended + "<![CDATA[\ufffd]]></o>";
    const std::string unfit = failed("-1", "Build reply message failed.");
    check({
        {config("/a"), "config 3 1 0 10 /a", failed("7", mended),
         records(1, 7,
                 "Gr\xf6\xdf"
                 "e\xed\xa0\x80\x01\u00f6\xe2")},
        {operate("<a/>"), call, result(nodes), latin("o")},
        {subscribe(""), status, result("<path/><data>" + nodes + "</data>"), latin("o")},
        {operate("<a/>"), call, failed("-1", "add &lt;output&gt; xml node failed."), document},
        {subscribe(""), status, failed("-1", "Add status as a child failed."), document},
        {operate("<a/>"), call, unfit, latin("not a name")},
        {subscribe(""), status, unfit, latin("\xf6")},
        {operate("<a/>"), call, unfit, comment},
        {subscribe(""), status, unfit, entity},
    });
}

TEST_F(LoopTest, CallbackMayEndThePlugin)
{
    const std::pair<std::string, std::string> kinds[] = {
        {config("/a"), succeeded()},
        {operate("<a/>"), result("<o/>")},
        {subscribe(""), result("<path/><data><o/></data>")},
        {kick_off, succeeded()},
    };
    for (const auto &[request, accepted] : kinds) {
        for (const int code : {0, 5}) {
            SCOPED_TRACE(request + std::to_string(code));
            const auto records_and = [code](const std::function<void()> &inside) {
                const auto both = [=] { econf_plugin_error(6, "recorded"), inside(); };
                return behaviour{code, both, nodes_of("<o/>")};
            };
            // Deactivated: answered nevertheless.
            act = records_and(econf_plugin_deactivate);
            peer->send(framed(request));
            request_of(econf_plugin_run);
            const bool accepts = code == 0 || request == kick_off;
            EXPECT_EQ(peer->received(), strings{accepts ? accepted : failed("6", "recorded")});
            EXPECT_EQ(context->bit_activate, 0U);
            context->bit_activate = 1;

            // Closed: nothing more is handled or sent.
            act = records_and(econf_plugin_close);
            peer->send(framed(request));
            EXPECT_EQ(handle(kick_off), "");
            EXPECT_EQ(called.rfind("kick-off"), request == kick_off ? 0 : std::string::npos);
            EXPECT_EQ(get_plugin_context(), nullptr);
            end();

            // Closed and begun anew: the new connection sees nothing of the request.
            start(subscriptions());
            act = records_and([this] {
                end();
                act = {};
                start(subscriptions());
            });
            EXPECT_EQ(handle(request), "");
            ASSERT_NE(get_plugin_context(), nullptr);
            EXPECT_EQ(context->err_msg, nullptr);
            EXPECT_EQ(handle(kick_off), succeeded());
        }
    }
}

// Of its callbacks nothing is known but the table, in which these two have changed places.
TEST_F(LoopTest, ServesAContextThatDidNotRegister)
{
    std::vector<std::byte> copy(sizeof *context + context->cbs_nums * sizeof context->cbs[0]);
    auto *const other = reinterpret_cast<conf_plugin_context_t *>(copy.data());
    std::memcpy(copy.data(), context, copy.size());
    std::swap(other->cbs[1], other->cbs[3]);
    get_plugin_from_hash()->plugin_ctxt = other;
    EXPECT_EQ(handle(operate("<a/>", "1")), result("<ok/>"));
    EXPECT_EQ(handle(publish("config", "<path>/a</path>", callback("3"))), succeeded());
    EXPECT_EQ(called, "config 3 0 0 0 /a");
    get_plugin_from_hash()->plugin_ctxt = context;
}

// The child has no plugin, although it has the socket.
TEST_F(LoopTest, CallbackMayFork)
{
    pid_t child = -1;
    act.inside = [&] { child = fork(); };
    peer->send(framed(config("/a")));
    econf_plugin_run();
    if (child == 0) {
        _exit(0); // without a look at the replies, which the parent is to see
    }
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(peer->received(), strings{succeeded()});
}

} // namespace
