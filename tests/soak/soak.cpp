// A long life of one plugin: many requests to a daemon, and many of a daemon, which misbehaves at
// random. The plugin must give and get exactly one right answer each time, and must not grow.
//
//     soak EXCHANGES CHANGES [SEED]
//
// The daemon is a process of its own. Both know what is to come in each exchange and each change
// (plan.h); how the daemon sends it, and what else it sends before, is the daemon's secret.
#include "plan.h"
#include "sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using namespace soak;

namespace {

constexpr long growth_limit = 65536;
constexpr int page = 4096;

// What the daemon counts, seen by both processes.
struct figures {
    number hang_ups, noises, answers;
};
figures *counted = nullptr;

void require(bool holds, const std::string &what, number which, const std::string &seen = "")
{
    if (!holds) {
        std::cout << "FAILED: " << what << ' ' << which << '\n' << seen.substr(0, 300) << std::endl;
        _exit(1);
    }
}

// ---- the daemon --------------------------------------------------------------------------------

FakeDaemon *sockets = nullptr;
std::mt19937_64 luck;

// The next message, which must be as planned.
void expect(const std::string &what, number which, const std::string &right)
{
    const std::string seen = sockets->connection().receive();
    require(seen == right, what, which, seen);
}

// And hangs up.
void send_a_part(const std::string &body)
{
    const std::string message = framed(body);
    ++counted->hang_ups; // before the plugin can know
    sockets->connection().send(message.substr(0, below(luck, message.size())));
    sockets->forget_connection();
}

// What leads to nothing; no request has the id 70000.
std::string noise(const std::string &foreign)
{
    const std::string malformed[] = {"<rpc>", "\x01", "", "<reply><result/>", "<a/><b/>"};
    const std::string big = "<result>" + std::string(below(luck, 9000), 'x') + "</result>";
    std::string junk(below(luck, 40), ' ');
    for (char &byte : junk) {
        byte = static_cast<char>(1 + below(luck, 0xf0)); // no part of a header
    }
    const std::string all[] = {junk, framed(malformed[below(luck, std::size(malformed))]),
                               framed(reply(big, "70000")), framed(foreign)};
    ++counted->noises;
    return all[below(luck, std::size(all))];
}

// Sends the message, at times in pieces and behind noise; a plugin that waits for a reply drops a
// foreign request, one that does not drops a foreign reply.
void deliver(const std::string &body,
             const std::string &foreign = with_id(config("/lost"), "70000"))
{
    std::string stream;
    while (below(luck, 4) == 0) {
        stream += noise(foreign);
    }
    stream += framed(body);
    for (std::size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = 1 + below(luck, below(luck, 4) == 0 ? 40 : 5000);
        sockets->connection().send(stream.substr(at, size));
    }
}

std::string id_of(const std::string &request)
{
    const std::size_t id = request.rfind("<id>") + 4;
    return id < 4 ? "" : request.substr(id, request.find('<', id) - id);
}

// Until a connection has been registered and activated.
void greet()
{
    const char *const methods[] = {"<method>register<", "<method>activate<"};
    for (std::size_t done = 0; done < std::size(methods);) {
        const std::string request = sockets->connection().receive();
        const bool fits = request.find(methods[done]) != std::string::npos;
        require(fits, std::string("no ") + methods[done], 0, request);
        const std::string right = reply("<result/>", id_of(request));
        const bool hangs_up = below(luck, 20) == 0;
        hangs_up ? send_a_part(right) : deliver(right);
        done = hangs_up ? 0 : done + 1;
    }
}

void answer_exchange(number which)
{
    const step now = exchange_of(which);
    const std::string request = sockets->connection().receive();
    const std::string id = id_of(request);
    require(request == with_id(now.sent, id), "request of exchange", which, request);
    if (now.hangs_up) {
        send_a_part(reply(now.answered, id));
        greet();
    } else {
        deliver(reply(now.answered, id));
    }
}

void be_daemon()
{
    luck.seed(seed);
    greet();
    number done = 0;
    for (number i = 0; i < changes; ++i) {
        const step now = change_of(i);
        const std::string id = std::to_string(i + 1);
        if (now.hangs_up || below(luck, 20) == 0) {
            // Its answer tells that the plugin is no longer inside an exchange, where it would take
            // the hang-up for a failure of that.
            sockets->connection().send(framed(rpc("unknown", "<params/>", id)));
            expect("answer to a method before change", i,
                   reply(error("-1", "Method &lt;unknown&gt; doesn't be supported"), id));
        }
        if (now.hangs_up) {
            send_a_part(with_id(now.sent, id)); // all of it follows on the next connection
            greet();
        }
        deliver(with_id(now.sent, id), reply("<result/>", id));
        const number before = counted->hang_ups;
        while (done < exchanges_inside(i)) {
            answer_exchange(done++);
        }
        if (counted->hang_ups == before) { // else its answer has no connection to go to
            expect("answer to change", i, reply(now.answered, id));
            ++counted->answers;
        }
        while (done < exchanges_until(i + 1)) {
            answer_exchange(done++);
        }
    }
    expect("end after change", changes, "");
}

// ---- the plugin --------------------------------------------------------------------------------

struct demo : DemoFixture {
    using DemoFixture::subscriptions;
};

struct {
    number exchanges, changes, connections, idle_looks;
} done;

void join()
{
    econf_plugin_subpub_info_t info = demo::subscriptions();
    bool ready = false;
    while (!ready) {
        if (get_plugin_context() != nullptr) {
            econf_plugin_close();
        }
        ++done.connections;
        require(done.connections < counted->hang_ups + 2, "connection", done.connections);
        ready = econf_plugin_init("soak", &info) >= 0 && econf_plugin_activate(0) == 0;
    }
}

void exchange()
{
    const number which = done.exchanges++;
    const step now = exchange_of(which);
    const char *text = now.text.c_str();
    xmlNode *data = parse("<v>" + now.text + "</v>");
    xmlNode *list = nullptr;
    const int result = now.kind < 2    ? econf_plugin_pull(now.kind == 1, text, &list)
                       : now.kind == 2 ? econf_plugin_locate(0, text, &list)
                       : now.kind == 3 ? econf_plugin_push("/p", data)
                                       : econf_plugin_config_deployment("/p", 0, data);
    const int wanted = now.hangs_up || (now.error && now.kind > 2) ? -1 : 0;
    const std::string seen = list_of(list); // an error leaves a reading call without a list
    require(result == wanted && seen == (now.hangs_up || now.error ? "" : now.seen), "exchange",
            which, seen);
    xmlFreeNodeList(list);
    xmlFreeNode(data);
    if (now.hangs_up) {
        join();
    }
}

void handle_change()
{
    const step now = change_of(done.changes);
    require(called == now.seen, "call for change", done.changes, called);
    called.clear();
    const number connection = done.connections;
    while (done.exchanges < exchanges_inside(done.changes)) {
        exchange();
    }
    act.result = now.error ? 5 : 0;
    if (now.error && now.describes_error && done.connections == connection) {
        econf_plugin_error(6, now.text.c_str());
    }
    ++done.changes;
}

void run_loop()
{
    const number connection = done.connections;
    pollfd sock{get_plugin_context()->sock, POLLIN | POLLRDHUP, 0};
    require(poll(&sock, 1, 60000) == 1, "nothing came for change", done.changes);
    econf_plugin_run();
    const bool hung_up = (sock.revents & (POLLERR | POLLHUP | POLLRDHUP)) != 0;
    if (hung_up && done.connections == connection) {
        join();
    }
}

// Buffers that hold nothing have one page.
void look_at_idle_buffers()
{
    const conf_plugin_context_t *context = get_plugin_context();
    for (const conf_buffer_t *buffer : {context->recv_buf, context->send_buf}) {
        const int size = buffer->total + static_cast<int>(sizeof *buffer);
        require(buffer->used > 0 || size == page, "page of buffer", done.changes);
        done.idle_looks += buffer->used == 0 ? 1 : 0;
    }
}

// Bytes of the heap, and of all mappings.
std::pair<long, long> memory_now()
{
    malloc_trim(0);
    const struct mallinfo2 info = mallinfo2();
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return {static_cast<long>(info.uordblks + info.hblkhd), pages * getpagesize()};
}

bool live()
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    const int descriptors = open_descriptors();
    act.produce = [](xmlNode *) { return parse("<o>" + change_of(done.changes).text + "</o>"); };
    act.inside = handle_change;
    std::pair<long, long> warm;
    join();
    for (number i = 0; i < changes; ++i) {
        while (done.changes <= i) {
            run_loop();
        }
        while (done.exchanges < exchanges_until(i + 1)) {
            exchange();
        }
        look_at_idle_buffers();
        if (i == changes / 2) {
            warm = memory_now();
        }
    }
    const auto [heap, mapped] = memory_now();
    econf_plugin_close();
    const int left = open_descriptors();
    const long growth = std::max(heap - warm.first, mapped - warm.second);
    std::printf("  exchanges that went as planned           %llu\n"
                "  changes answered, lost by a hang-up      %llu, %llu\n"
                "  junk, foreign and malformed messages     %llu\n"
                "  hang-ups, reconnections                  %llu, %llu\n"
                "  growth of heap or mappings (bytes)       %ld\n"
                "  descriptors before, after                %d, %d\n"
                "  looks at idle buffers, one page each     %llu\n",
                done.exchanges, counted->answers, done.changes - counted->answers, counted->noises,
                counted->hang_ups, done.connections - 1, growth, descriptors, left,
                done.idle_looks);
    return done.connections - 1 == counted->hang_ups && descriptors == left &&
           done.idle_looks >= changes && !(SOAK_MEASURES_MEMORY && growth > growth_limit);
}

} // namespace

int main(int count, char **arguments)
{
    // The allocator's cache for a thread would count as used memory, and is made with the process.
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", arguments);
    }
    std::string error;
    if (count < 3 || !sandbox::enter({}, error)) {
        std::cerr << "soak EXCHANGES CHANGES [SEED] " << error << std::endl;
        return 2;
    }
    exchanges = std::strtoull(arguments[1], nullptr, 10);
    changes = std::max(std::strtoull(arguments[2], nullptr, 10), 1ULL);
    seed = count > 3 ? std::strtoull(arguments[3], nullptr, 10) : std::random_device{}();
    std::cout << "soak: seed " << seed << std::endl;
    counted = static_cast<figures *>(
        mmap(nullptr, sizeof *counted, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    FakeDaemon listening;
    sockets = &listening;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        be_daemon();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    const bool good = live() && wait(&status) > 0 && status == 0;
    std::puts(good ? "passed" : "FAILED");
    return good ? 0 : 1;
}
