// The event loop: what each request calls and what is answered, byte for byte.
#include "demo_plugin.h"

#include <libxml/parser.h>

using namespace test;

namespace {

const std::string no_callback = failed("-1", "Cann't find the callback function.");
const std::string invalid_index = failed("-1", "Callback index is invalid.");
const auto give_input = [](xmlNode *input) { return input; };

class LoopTest : public DemoFixture {
protected:
    // One request: how a callback is called, what is answered, and a piece of the debug file.
    void check(const char *name, const std::string &request, const std::string &call,
               const std::string &answer, const behaviour &does = {}, const char *log = "")
    {
        SCOPED_TRACE(name);
        clear_debug_file();
        act = does;
        EXPECT_EQ(handle({request}), answer);
        EXPECT_EQ(called, call);
        std::string lines;
        for (const std::string &line : debug_lines()) {
            lines += line + '\n';
        }
        EXPECT_NE(lines.find(log), std::string::npos) << log;
        EXPECT_EQ(context->err_code, 0);
        EXPECT_EQ(context->err_msg, nullptr);
        act = {};
    }
};

TEST_F(LoopTest, ConfigurationChanges)
{
    const std::string call = "config 3 1 0 10 /demo/settings";
    const std::string request = config("/demo/settings");
    check("accepted", request, call, succeeded(), {},
          "[DEBUG] - Service publish result: 0 for path:/demo/settings oper:1 priority:10 time "
          "consumed:0.0");
    check("refused", request, call, failed("22"), returns(22), "Service publish result: 22 for");
    check("own error", request, call, failed("7", "a &lt; b &amp; c"), records(1, 7, "a < b & c"));
    check("own error without text", request, call, failed("7"), records(1, 7, nullptr));
    check("own code 0", request, call, succeeded(), records(1, 0, "fine"));
    check("own error, then accepted", request, call, succeeded(), records(0, 7, "never mind"));
    check("quotes of keys are removed", config("/a/b[name=\"x\"]/c"),
          "config 3 1 0 10 /a/b[name=x]/c", succeeded());
    check("nothing but an index",
          rpc("publish", "<params><info/><callback>1</callback><type>config</type></params>", "17"),
          "config -1 0 0 0 null", succeeded());
    check("empty elements",
          rpc("publish",
              "<params><type>config</type><session-id/><callback>1</callback><info><oper-type/>"
              "<more-flag/><priority/><path/></info></params>",
              "17"),
          "config -1 0 0 0 null", succeeded());
    check("the last of repeated elements, text that is none",
          publish("operate",
                  "<oper-type>1</oper-type><oper-type>2</oper-type><more-flag>5</more-flag>"
                  "<more-flag/><priority><!--9-->9</priority><path>/a</path><path>/b</path>",
                  "<type>config</type><session-id>8</session-id><callback>4</callback>"
                  "<callback>1</callback><info><path>/z</path></info>"),
          "config 8 2 5 0 /b", succeeded());
    check("an empty path behind a path", publish("config", "<path>/a</path><path/>"),
          "config 3 0 0 0 null", succeeded());
    check("numbers",
          publish("config",
                  "<oper-type> \t+12x</oper-type><more-flag>x1</more-flag>"
                  "<priority>-99999999999</priority><path>/a</path>",
                  "<callback>01</callback><session-id>99999999999999999999</session-id>"),
          "config 2147483647 12 0 -2147483648 /a", succeeded());
    check("index behind the last", publish("config", "<path>/a</path>", "<callback>5</callback>"),
          "", no_callback, {}, "[DEBUG] - Cann't find the callback for path:/a oper:0 priority:0");
    check("index -1", publish("config", "", "<callback>-1</callback>"), "", no_callback);
    check("no index", publish("config", "", ""), "", no_callback);
    check("index 2^32+1", publish("config", "", "<callback>4294967297</callback>"), "",
          no_callback);
    check("index of the kick-off", publish("config", "", "<callback>0</callback>"), "",
          no_callback);
    // Callbacks of the other kinds take other arguments.
    check("index of a status", publish("config", "", "<callback>2</callback>"), "", no_callback);
    check("index of a status", operate("<a/>", "2"), "", no_callback);
    check("index of an operation", subscribe("", "3"), "", no_callback);
    check("index of a configuration", subscribe("", "1"), "", no_callback);
    check("null callback", publish("config", "", "<callback>4</callback>"), "", no_callback);
    check("other type", publish("Config", ""), "", failed("-1", "Unknown publish type."));
    check("empty type", publish("", ""), "", failed("-1", "Error publish rpc message."));
    check("no info", rpc("publish", "<params><type>config</type></params>", "17"), "",
          failed("-1", "Error publish rpc message."));
}

TEST_F(LoopTest, CountsRefusalsOfTheInitialConfiguration)
{
    const std::string with_bit = config("/a", std::to_string(CONFIG_OP_CFGR | CONFIG_OP_ADD));
    const int before = g_rdb_recovery_status;
    act.result = 5;
    EXPECT_EQ(handle({with_bit, config("/a", "32769")}), failed("5") + failed("5"));
    EXPECT_EQ(g_rdb_recovery_status, before + 1);
    act.result = 0;
    EXPECT_EQ(handle({with_bit}), succeeded());
    EXPECT_EQ(g_rdb_recovery_status, before + 1);
}

TEST_F(LoopTest, Operations)
{
    const std::string input = "<a>1</a><b/>";
    const std::string call = "operate 3 " + input;
    const std::string ok = succeeded("<result><ok/></result>");
    xmlNode *own = parse("<own><x/><y><z>1</z></y><w/></own>");
    check("no output", operate(input), call, ok);
    check("no input", operate(""), "operate 3 ", ok);
    check("output", operate(input), call, succeeded("<result><o>2</o></result>"),
          gives(element("<o>2</o>")));
    check("several nodes", operate(input), call, succeeded("<result><o>2</o>text<p/></result>"),
          gives(nodes_of("<l><o>2</o>text<p/></l>")));
    check("the input", operate(input), call, succeeded("<result>" + input + "</result>"),
          gives(give_input));
    check("part of the input", operate("<a/><b><c/><d/></b>"), "operate 3 <a/><b><c/><d/></b>",
          succeeded("<result><c/><d/></result>"),
          gives([](xmlNode *in) { return in->next->children; }));
    check("part of an own tree", operate(input), call,
          succeeded("<result><y><z>1</z></y><w/></result>"),
          gives([&](xmlNode *) { return own->children->next; }));
    xmlDoc *doc = xmlReadDoc(BAD_CAST "<own><shared>1</shared></own>", nullptr, nullptr, 0);
    check("unlinked from a document that lives on", operate(input), call,
          succeeded("<result><shared>1</shared></result>"), gives([&](xmlNode *) {
              xmlNode *node = xmlDocGetRootElement(doc)->children;
              xmlUnlinkNode(node);
              return node; // its strings belong to the document's dictionary
          }));
    xmlFreeDoc(doc);
    check("error recorded, then success", operate(input), call, ok, records(0, 9, "stale"));
    check("refused right after", operate(input), call, failed("5"), returns(5));
    check("refused with output", operate(input), call, failed("5"),
          {5, {}, nodes_of("<l><o/><p/></l>")});
    check("refused with the input", operate(input), call, failed("6", "no"),
          {5, [] { econf_plugin_error(6, "no"); }, give_input});
    check("refused with part of an own tree", operate(input), call, failed("5"),
          {5, {}, [&](xmlNode *) { return own->children; }});
    check("index behind the last", operate("", "5"), "", invalid_index);
    check("index -1", operate("", "-1"), "", invalid_index);
    check("index of the kick-off", operate("", "0"), "", no_callback);
    check("null callback", operate("", "4"), "", no_callback);

    EXPECT_EQ(print(own), "<own><x/><y><z>1</z></y><w/></own>");
    xmlFreeNode(own);
}

TEST_F(LoopTest, StatusRequests)
{
    const std::string rest = "<path>/a[k=\"x&amp;y\"]</path><filter>f</filter>";
    const std::string call = "status 4 /a[k=\"x&y\"] f";
    const std::string path = "<path>/a[k=\"x&amp;y\"]</path>";
    xmlNode *own = parse("<own><x>1</x></own>");
    check("no data", subscribe(rest), call, succeeded("<result>" + path + "<data/></result>"));
    check("data", subscribe(rest), call,
          succeeded("<result>" + path + "<data><s><t>1</t></s></data></result>"),
          gives(element("<s><t>1</t></s>")));
    check("several nodes", subscribe(rest), call,
          succeeded("<result>" + path + "<data><s/><t/></data></result>"),
          gives(nodes_of("<l><s/><t/></l>")));
    check("part of an own tree", subscribe(rest), call,
          succeeded("<result>" + path + "<data><x>1</x></data></result>"),
          gives([&](xmlNode *) { return own->children; }));
    check("no path, empty filter", subscribe("<filter/>"), "status 4 null null",
          succeeded("<result><path/><data/></result>"));
    check("no session", rpc("subscribe", "<params><callback>2</callback></params>", "17"),
          "status -1 null null", succeeded("<result><path/><data/></result>"));
    check("error recorded, then success", subscribe(rest), call,
          succeeded("<result>" + path + "<data/></result>"), records(0, 9, "stale"));
    check("refused right after", subscribe(rest), call, failed("5"), {5, {}, element("<s/>")});
    check("refused with an error", subscribe(rest), call, failed("6", "no"), records(5, 6, "no"));
    check("index behind the last", subscribe("", "5"), "", invalid_index);
    check("index of the kick-off", subscribe("", "0"), "", no_callback);
    check("null callback", subscribe("", "4"), "", no_callback);

    EXPECT_EQ(print(own), "<own><x>1</x></own>");
    xmlFreeNode(own);
}

TEST_F(LoopTest, KickOffOtherMethodsAndMalformedMessages)
{
    check("kick-off", kick_off, "kick-off", succeeded(), {}, "[INFO] - Plugin demo kickoff now.");
    check("kick-off with an error", kick_off, "kick-off", succeeded(), records(0, 3, "late"),
          "[WARN] - Plugin kickoff have error late now.");
    check("unknown method", rpc("Publish&lt;", "<params/>", "17"), "",
          failed("-1", "Method &lt;Publish&lt;&gt; doesn't be supported"), {},
          "[WARN] - Receive an unknown rpc method Publish<.");
    check("unknown method without id", with_id(rpc("x", "<params/>", ""), ""), "", "", {},
          "[WARN] - Receive an unknown rpc method x.");
    check("largest id", with_id(kick_off, "4294967295"), "kick-off",
          reply("<result/>", "4294967295"));
    check("id above 2^31", with_id(config("/a"), "2147483648"), "config 3 1 0 10 /a",
          reply(error("22", default_error), "2147483648"), returns(22));
    check("id with zeros", with_id(kick_off, "0042"), "kick-off", reply("<result/>", "42"));
    check("kick-off with id 0", with_id(kick_off, "0"), "kick-off", "", {},
          "[ERROR] - Plugin demo send reply for publish rpc failed.");
    check("configuration refused, id not a number", with_id(config("/a"), "x"),
          "config 3 1 0 10 /a", "", returns(22),
          "[ERROR] - Plugin demo send reply for publish rpc failed.");
    check("operation refused without id", with_id(operate(""), ""), "operate 3 ", "", returns(22),
          "[ERROR] - Plugin demo send error-reply failed.");
    check("status refused without id", with_id(subscribe(""), ""), "status 4 null null", "",
          returns(22), "[ERROR] - Plugin demo send reply for publish rpc failed.");
    check("no method", "<rpc><params/><id>17</id></rpc>", "", "", {},
          "[DEBUG] - Plugin demo parse rpc failed.");
    check("no parameters", "<rpc><method>kickoff</method><id>17</id></rpc>", "", "", {},
          "[DEBUG] - Plugin demo parse rpc failed.");
    check("not well-formed", "<rpc>", "", "", {}, "[DEBUG] - Plugin demo parse message failed.");
    check("no body", "", "", "", {}, "[DEBUG] - Plugin demo parse message failed.");

    context->cbs[0] = nullptr;
    EXPECT_EQ(handle({kick_off}), succeeded());
}

} // namespace
