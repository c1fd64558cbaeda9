// A long life of one plugin: many requests to a daemon, and many of a daemon, which misbehaves at
// random. The plugin must give and get exactly one right answer each time, and must not grow.
//
//     soak CHANGES [SEED]
//
// The daemon is a process of its own. What is asked and answered follows from the number of the
// exchange or change, so both know it; when the daemon answers by an error, hangs up, or sends
// something else before, is its own choice. Relies on the requests of demo_plugin.h.
#include "client_table.h"
#include "demo_plugin.h"
#include "memory.h"
#include "sandbox.h"
#include "timing.h"

#include <iostream>
#include <poll.h>
#include <random>
#include <regex>
#include <sys/mman.h>

using namespace test;
using number = unsigned long long;

namespace {

constexpr number exchanges_each = 10; // of a change, some of them made while it is handled
constexpr int empty_buffer = 4096 - sizeof(conf_buffer_t); // one page

number changes = 0;

// Told by the daemon, before the plugin can notice.
struct news {
    number hang_ups, noises, answers;
    bool refuses; // the last exchange
} *told = nullptr;

// ---- the plan ----------------------------------------------------------------------------------

std::string request(const std::string &method, const std::string &params)
{
    return rpc(method, "<params>" + params + "</params>", "");
}

// With % for a text. What is seen is the list that a reading call gets, or how the callback is
// called.
struct form {
    std::string sent, seen, answered;
};
const std::string values = "<result><data><v>%</v></data></result>";
const form exchanges[] = {
    {request("pull", "<path>%</path>"), "<v>%</v>", values},
    {request("pull", "<old/><path>%</path>"), "<v>%</v>", values},
    {request("locate", "<path>%</path>"), "<prev>%</prev>", "<result><prev>%</prev></result>"},
    {request("push", "<path>/p</path><data><v>%</v></data>"), "", "<result/>"},
    {request("config_deployment", "<path>/p</path><oper-type>add</oper-type><data><v>%</v></data>"),
     "", "<result/>"},
};
const form callbacks[] = {
    {config("/c/%"), "config 3 1 0 10 /c/%", "<result/>"},
    {subscribe("<path>/c/%</path>"), "status 4 /c/% null",
     "<result><path>/c/%</path><data><o>%</o></data></result>"},
    {operate("<o>%</o>"), "operate 3 <o>%</o>", "<result><o>%</o></result>"},
};

// Of its own for each number, at times several pages long.
std::string text_of(number which)
{
    return repeat(std::to_string(10000000 + which),
                  which % 49 == 0 ? 2000 : static_cast<int>(which % 40) + 1);
}

std::string filled(const std::string &text, number which)
{
    return std::regex_replace(text, std::regex("%"), text_of(which));
}

bool is_refused(number change)
{
    return change % 8 == 3;
}

// How many exchanges have been made when that change is answered; all of its own in the last case.
number exchanges_before_answer(number change)
{
    return change * exchanges_each + (change % 4 == 3 ? exchanges_each : change % 4);
}

// ---- the daemon --------------------------------------------------------------------------------

FakeDaemon *sockets = nullptr;
std::mt19937_64 luck{std::random_device{}()}; // until main() seeds it

number below(number limit)
{
    return luck() % limit;
}

// What leads to nothing; no request has the id 70000.
std::string noise(const std::string &foreign)
{
    const number length = below(40); // before the byte, so that a seed means one run everywhere
    const std::string junk(length, static_cast<char>(1 + below(0xf0))); // no part of a header
    const std::string late = reply(std::string(below(9000), 'x'), "70000");
    const std::string bodies[] = {"<rpc>", "\x01", "", "<a/><b/>", late, foreign};
    ++told->noises;
    return below(4) == 0 ? junk : framed(bodies[below(std::size(bodies))]);
}

void greet(const std::string &method = "register");

// Sends the message, at times in pieces and behind noise; a plugin that waits for a reply drops a
// foreign request, one that does not drops a foreign reply. Or sends a part of that and hangs up;
// then the plugin comes back.
void deliver(const std::string &body, bool hangs_up,
             const std::string &foreign = with_id(config("/lost"), "70000"))
{
    std::string stream;
    while (below(4) == 0) {
        stream += noise(foreign);
    }
    stream += framed(body);
    if (hangs_up) {
        ++told->hang_ups;
        stream.resize(below(stream.size()));
    }
    for (std::size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = 1 + below(below(4) == 0 ? 40 : 5000);
        sockets->connection().send(stream.substr(at, size));
    }
    if (hangs_up) {
        sockets->forget_connection();
        greet();
    }
}

std::string receive(std::string &id)
{
    std::string message = sockets->connection().receive();
    const std::size_t at = message.rfind("<id>") + 4;
    id = message.substr(at, message.find('<', at) - at);
    return message;
}

// Until a connection has been registered and activated.
void greet(const std::string &method)
{
    std::string id;
    const std::string seen = receive(id);
    EXPECT_TRUE(seen.starts_with("<rpc><method>" + method)) << seen;
    const bool hangs_up = below(20) == 0;
    deliver(reply("<result/>", id), hangs_up);
    if (!hangs_up && method == "register") {
        greet("activate");
    }
}

void answer_exchange(number which)
{
    const form &planned = exchanges[which % std::size(exchanges)];
    std::string id;
    const std::string seen = receive(id);
    EXPECT_EQ(seen, with_id(filled(planned.sent, which), id));
    told->refuses = below(8) == 0;
    deliver(reply(told->refuses ? error("6", "no") : filled(planned.answered, which), id),
            below(500) == 0);
}

int be_daemon()
{
    greet();
    for (number i = 0, done = 0; i < changes; ++i) {
        const form &planned = callbacks[i % std::size(callbacks)];
        const std::string id = std::to_string(i + 1);
        const number before = told->hang_ups;
        deliver(with_id(filled(planned.sent, i), id), false, reply("<result/>", id));
        while (done < exchanges_before_answer(i)) {
            answer_exchange(done++);
        }
        if (told->hang_ups == before) { // else the answer has no connection to go to
            const std::string right =
                is_refused(i) ? error("6", text_of(i)) : filled(planned.answered, i);
            EXPECT_EQ(sockets->connection().receive(), reply(right, id));
            ++told->answers;
            // No exchange is under way that would fail, and the plugin comes back for another
            // change.
            if (i % 4 == 3 && i + 1 < changes && below(50) == 0) {
                deliver(config("/part"), true, reply("<result/>", id));
            }
        }
        while (done < (i + 1) * exchanges_each) {
            answer_exchange(done++);
        }
    }
    EXPECT_EQ(sockets->connection().receive(), "");
    return 0;
}

// ---- the plugin --------------------------------------------------------------------------------

struct {
    number exchanges, changes, connections;
} done;

// At the beginning, and after each hang-up.
void join()
{
    econf_plugin_subpub_info_t info = subscriptions();
    while (done.connections <= told->hang_ups) {
        econf_plugin_close();
        ++done.connections;
        const bool joined = econf_plugin_init("soak", &info) >= 0 && econf_plugin_activate(0) == 0;
        EXPECT_EQ(joined, done.connections > told->hang_ups);
    }
}

void exchange()
{
    const number which = done.exchanges++;
    const number kind = which % std::size(exchanges);
    const std::string path = text_of(which);
    xmlNode *data = parse("<v>" + path + "</v>");
    xmlNode *list = nullptr;
    const int result = kind < 2    ? econf_plugin_pull(kind == 1, path.c_str(), &list)
                       : kind == 2 ? econf_plugin_locate(0, path.c_str(), &list)
                       : kind == 3 ? econf_plugin_push("/p", data)
                                   : econf_plugin_config_deployment("/p", 0, data);
    const bool hung_up = told->hang_ups == done.connections;
    const int wanted = hung_up || (told->refuses && kind > 2) ? -1 : 0; // reading is not refused
    EXPECT_EQ(result, wanted);
    EXPECT_EQ(list_of(list), hung_up || told->refuses ? "" : filled(exchanges[kind].seen, which));
    xmlFreeNodeList(list);
    xmlFreeNode(data);
    join();
}

void handle_change()
{
    const number which = done.changes++;
    const number connection = done.connections;
    EXPECT_EQ(called, filled(callbacks[which % std::size(callbacks)].seen, which));
    called.clear();
    while (done.exchanges < exchanges_before_answer(which)) {
        exchange();
    }
    act.result = is_refused(which) ? -1 : 0;
    if (is_refused(which) && done.connections == connection) {
        econf_plugin_error(6, text_of(which).c_str());
    }
}

void live()
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    const int descriptors = open_descriptors();
    act.produce = [](xmlNode *) { return parse("<o>" + text_of(done.changes) + "</o>"); };
    act.inside = handle_change;
    long long before = 0;
    join();
    for (number i = 1; i <= changes; ++i) {
        while (done.changes < i) {
            pollfd sock{get_plugin_context()->sock, POLLIN | POLLRDHUP, 0};
            EXPECT_EQ(poll(&sock, 1, 60000), 1) << "nothing came for change " << i;
            econf_plugin_run();
            join();
        }
        while (done.exchanges < i * exchanges_each) {
            exchange();
        }
        const conf_plugin_context_t *context = get_plugin_context();
        EXPECT_EQ(context->send_buf->total, empty_buffer);
        EXPECT_TRUE(context->recv_buf->total == empty_buffer || context->recv_buf->used > 0);
        before = i == changes / 2 ? memory_now() : before;
    }
    const long long growth = memory_now() - before;
    econf_plugin_close();
    std::cout << "  exchanges that went as planned           " << done.exchanges
              << "\n  changes answered, lost by a hang-up      " << told->answers << ", "
              << changes - told->answers << "\n  junk, foreign and malformed messages     "
              << told->noises << "\n  hang-ups, each with a reconnection       " << told->hang_ups
              << "\n  growth of heap and mappings (bytes)      " << growth << std::endl;
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LE(SOAK_MEASURES_MEMORY * growth, growth_limit);
}

} // namespace

int main(int count, char **arguments)
{
    without_allocator_cache(arguments);
    GTEST_FLAG_SET(break_on_failure, true);
    std::string error;
    EXPECT_GE(count, 2) << "soak CHANGES [SEED]";
    EXPECT_TRUE(sandbox::enter({}, error)) << error;
    changes = std::strtoull(arguments[1], nullptr, 10);
    const number seed =
        count > 2 ? std::strtoull(arguments[2], nullptr, 10) : std::random_device{}();
    std::cout << "soak: seed " << seed << std::endl;
    luck.seed(seed);
    told = static_cast<news *>(
        mmap(nullptr, sizeof *told, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    FakeDaemon listening;
    sockets = &listening;
    const pid_t daemon = start_process(be_daemon);
    live();
    int status = -1;
    EXPECT_EQ(waitpid(daemon, &status, 0), daemon);
    EXPECT_EQ(status, 0);
    std::cout << "passed" << std::endl;
}
