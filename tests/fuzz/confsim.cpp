// confsim's daemon under hostile peers: plugins in the target "confsim_plugin", agents in
// "confsim_agent". Peers and operator take turns in the daemon's own loop; afterwards the daemon
// must still serve, and what it would store must read back as what it holds.
#include "commands/commands.h"
#include "conf_plugin/plugin_internal.h"
#include "fuzz.h"

#include <array>
#include <list>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace confsim;

namespace {

#ifdef FUZZ_AGENT
constexpr bool is_agent = true;
#else
constexpr bool is_agent = false;
#endif

std::string rpc(const std::string &method, const std::string &params)
{
    return fuzz::rpc(method, params, "%n");
}

const fuzz::forms agent_forms = {
    "<rpc message-id='%n'><create-subscription/></rpc>", // the first message
    "<rpc xmlns='urn:ietf:params:xml:ns:netconf:base:1.0' message-id='%n'><get-config><source>"
    "<running/></source><filter type='subtree'><create-session>%x</create-session></filter>"
    "</get-config></rpc>",
    "<rpc message-id='%t'><get-config><filter><get-capability/></filter></get-config></rpc>",
    "<rpc><get-config><filter>%x</filter></get-config></rpc>",
    "<rpc message-id='%n'>%x</rpc>",
    "%x",
};
const fuzz::forms plugin_forms = {
    rpc("register",
        "<plugin-name>p%n</plugin-name><config-subscribe><subscriber><path>/a:b</path>"
        "<priority>%n</priority><callback>1</callback></subscriber><subscriber><path>/a:b/c</path>"
        "<priority>%n</priority><callback>%n</callback></subscriber></config-subscribe>"
        "<status-publish><publisher><path>/a:s</path><callback>3</callback></publisher>"
        "</status-publish>"),
    rpc("activate", "<with-cfgr/>"),
    test::reply("<result/>", "%n"),
    test::reply("<result><data>%x</data></result>", "%n"),
    test::reply("<error><code>%n</code><message>%t</message></error>", "%n"),
    rpc("pull", "<path>%p</path>"),
    rpc("locate", "<old/><path>%p</path>"),
    rpc("push", "<path>%p</path><data>%x</data>"),
    rpc("push", "<path>/a:b/c</path><data><c xmlns='urn:a'>%x</c></data>"),
    rpc("config_deployment", "<path>%p</path><oper-type>update</oper-type><data>%x</data>"),
    rpc("config_deployment", "<path>%p/b</path><oper-type>add</oper-type><data><b>%x</b></data>"),
    rpc("config_deployment", "<path>%p</path><oper-type>delete</oper-type>"),
    rpc("copy_deployment_to_memory", "<override>%n</override>"),
    "<rpc><method>save_deployment</method><params/><id>%n</id></rpc>",
    "<rpc><method>deactivate</method><params/><id>%n</id></rpc>",
    "<rpc><method>register</method>%x<id>%n</id></rpc>",
    "%x",
};
const char *const commands =
    "set /a:b/c %n|set %p %n|delete %p|commit|show deployment|show %p|status /a:s %n|plugins|"
    "kickoff|notifications|diff|discard|call %p %n|show published|kickoff p%n";

// A peer connects, sends or hangs up.
void take_turn(fuzz::input &in, int &peer)
{
    if (in.ended() || in.rarely(40)) {
        close(std::exchange(peer, -1));
        return;
    }
    std::span<const std::string> all = is_agent ? agent_forms : plugin_forms;
    if (peer < 0) {
        peer = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_un address =
            socket_address(is_agent ? g_conf_agent_socket : g_conf_plugin_socket);
        (void)connect(peer, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        all = all.first(1);
    } else {
        all = all.subspan(1);
        static std::array<char, 65536> ignored;
        (void)(in.rarely(4) || recv(peer, ignored.data(), ignored.size(), 0) != 0);
    }
    const std::string bytes = in.message(all);
    (void)send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void notify(fuzz::input &in)
{
    char name[] = "fuzz";
    std::string text = in.ConsumeBool() ? in.document() : in.text(100);
    text.resize(std::min<std::size_t>(text.size(), 60000));
    (void)conf_notify(name, text.data());
}

bool is_equal(const node &left, const node &right)
{
    return left.module == right.module && left.name == right.name && left.text == right.text &&
           std::equal(left.children.begin(), left.children.end(), right.children.begin(),
                      right.children.end(), is_equal);
}

// What is stored must be readable by the next confsim.
void check_stored(configuration &config, const char *name, node &checked)
{
    const node *kept = config.named(name);
    if (is_equal(*kept, checked)) {
        return;
    }
    const std::string text = xml::print(config.as_xml(*kept).get());
    const xml::doc_ptr doc = xml::parse_text(text, name); // or fails
    module_table modules;
    node read = from_xml(xmlDocGetRootElement(doc.get()), "", modules);
    read.module = kept->module;
    MUST(is_equal(read, *kept), text);
    checked = *kept;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static endpoints where("/var/tmp/confsim");
    fuzz::input in(data, size);
    std::array<int, 2> peers = {-1, -1};
    console out;
    event_loop loop;
    std::list<trace_file> files;
    if (in.writes(4)) {
        files.emplace_back("/dev/null");
    }
    tracer trace(out, &files);
    trace.enable(in.writes(4));
    configuration config("");
    conf_daemon service(loop, out, trace, config, where, seconds(3600));
    interpreter operating({loop, out, trace, config, service, where, seconds(3600)});

    std::pair<const char *, node> stored[] = {
        {"deployment", {}}, {"running", {}}, {"published", {}}};
    const int always = eventfd(1, EFD_CLOEXEC);
    loop.watch(always, POLLIN, [&](short) {
        take_turn(in, peers[in.below(peers.size())]);
        if (in.ended()) {
            take_turn(in, peers[0]);
            take_turn(in, peers[1]); // both are gone
        }
    });
    while (!in.ended()) {
        for (std::size_t rounds = 1 + in.below(8); rounds > 0; --rounds) {
            (void)loop.run_until([] { return false; }, steady_clock::now());
            (void)loop.run_until([once = 0]() mutable { return once++ > 0; });
        }
        if (in.rarely(3)) {
            notify(in);
        } else {
            (void)operating.run(in.filled(in.pick(commands)));
            MUST(!operating.last() || nlohmann::json::accept(to_json(*operating.last())));
        }
        for (auto &[name, checked] : stored) {
            check_stored(config, name, checked);
        }
    }
    (void)loop.run_until([&service] { return service.plugins().empty(); }, after(seconds(60)));
    MUST(service.plugins().empty());
    loop.forget(always);
    for (const int each : {always, peers[0], peers[1]}) {
        close(each);
    }
    return 0;
}
