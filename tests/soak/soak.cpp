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

class misbehaving_daemon {
public:
    explicit misbehaving_daemon(FakeDaemon &sockets) : sockets_(sockets) {}

    void run()
    {
        greet();
        number done = 0;
        for (number i = 0; i < changes; ++i) {
            const step now = change_of(i);
            const dialogue talk = dialogue_of(now);
            const std::string id = std::to_string(i + 1);
            const std::string request = with_id(talk.request, id);
            if (now.hangs_up || below(luck_, 20) == 0) {
                // Its answer tells that the plugin is no longer inside an exchange, where it would
                // take the hang-up for a failure of that.
                peer_->send(framed(rpc("unknown", "<params/>", id)));
                expect(reply(error("-1", "Method &lt;unknown&gt; doesn't be supported"), id), i);
            }
            if (now.hangs_up) {
                hang_up(request); // and sends it again on the next connection
            }
            deliver(request, reply("<result/>", id));
            const number before = counted->hang_ups;
            while (done < exchanges_inside(i)) {
                exchange(done++);
            }
            if (counted->hang_ups == before) { // else its answer has no connection to go to
                expect(reply(talk.content, id), i);
                ++counted->answers;
            }
            while (done < exchanges_until(i + 1)) {
                exchange(done++);
            }
        }
        require(peer_->receive().empty(), "more than was asked for, after change", changes);
    }

private:
    // Until a connection has been registered and activated.
    void greet()
    {
        for (bool ready = false; !ready;) {
            sockets_.forget_connection();
            peer_ = &sockets_.connection();
            ready = answer("<method>register<") && answer("<method>activate<");
        }
    }

    bool answer(const std::string &method)
    {
        const std::string request = peer_->receive();
        require(request.find(method) != std::string::npos, "no " + method, 0, request);
        const std::string right = reply("<result/>", id_of(request));
        if (below(luck_, 20) == 0) {
            send_a_part(right);
            return false;
        }
        deliver(right, foreign_request);
        return true;
    }

    void exchange(number which)
    {
        const step now = exchange_of(which);
        const std::string request = peer_->receive();
        const std::string id = id_of(request);
        const auto &kind = kinds[now.kind];
        const std::string params = element_of("params", kind.before + now.text + kind.after);
        require(request == rpc(kind.method, params, id), "request of exchange", which, request);
        const std::string right = reply(content_of_exchange(now), id);
        if (now.hangs_up) {
            hang_up(right);
        } else {
            deliver(right, foreign_request);
        }
    }

    void expect(const std::string &answer, number which)
    {
        const std::string seen = peer_->receive();
        require(seen == answer, "answer to change", which, seen);
    }

    static std::string id_of(const std::string &request)
    {
        const std::size_t id = request.rfind("<id>") + 4;
        return id < 4 ? "" : request.substr(id, request.find('<', id) - id);
    }

    void send_a_part(const std::string &body)
    {
        const std::string message = framed(body);
        ++counted->hang_ups; // before the plugin can know
        peer_->send(message.substr(0, below(luck_, message.size())));
        peer_->close();
    }

    void hang_up(const std::string &body)
    {
        send_a_part(body);
        greet();
    }

    // Sends the message, at times in pieces and behind others that lead to nothing: `foreign`, too.
    void deliver(const std::string &body, const std::string &foreign)
    {
        std::string stream;
        while (below(luck_, 4) == 0) {
            stream += noise(foreign);
            ++counted->noises;
        }
        stream += framed(body);
        while (!stream.empty()) {
            const number most = below(luck_, 4) == 0 ? 40 : 5000;
            const std::string piece = stream.substr(0, 1 + below(luck_, most));
            peer_->send(piece);
            stream.erase(0, piece.size());
        }
    }

    std::string noise(const std::string &foreign)
    {
        const std::string malformed[] = {"<rpc>", "\x01", "", "<reply><result/>", "<a/><b/>"};
        switch (below(luck_, 4)) {
        case 0: {
            std::string junk;
            for (number i = below(luck_, 40); i > 0; --i) {
                junk += static_cast<char>(1 + below(luck_, 0xf0)); // no part of a header
            }
            return junk;
        }
        case 1:
            return framed(malformed[below(luck_, std::size(malformed))]);
        case 2: // no request has this id
            return framed(
                reply("<result>" + std::string(below(luck_, 9000), 'x') + "</result>", "70000"));
        default:
            return framed(foreign);
        }
    }

    // A plugin that waits for a reply drops it.
    const std::string foreign_request = with_id(config("/lost"), "70000");

    FakeDaemon &sockets_;
    Peer *peer_ = nullptr;
    std::mt19937_64 luck_{seed};
};

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
    xmlNode *data = parse(element_of("v", now.text));
    xmlNode *list = nullptr;
    const int result = call(now, data, &list);
    const bool reads = kinds[now.kind].element != nullptr; // an error leaves it without a list
    const int wanted = now.hangs_up || (now.error && !reads) ? -1 : 0;
    const std::string seen = list_of(list);
    require(result == wanted && seen == (now.hangs_up || now.error ? "" : list_of_exchange(now)),
            "exchange", which, seen);
    xmlFreeNodeList(list);
    xmlFreeNode(data);
    if (now.hangs_up) {
        join();
    }
}

void handle_change()
{
    const step now = change_of(done.changes);
    require(called == dialogue_of(now).call, "call for change", done.changes, called);
    called.clear();
    const number connection = done.connections;
    while (done.exchanges < exchanges_inside(done.changes)) {
        exchange();
    }
    act.result = now.error ? 5 : 0;
    if (now.error && describes_its_error(now) && done.connections == connection) {
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
        if (buffer->used == 0) {
            ++done.idle_looks;
            require(buffer->total + static_cast<int>(sizeof *buffer) == page, "page of buffer",
                    done.changes, std::to_string(buffer->total));
        }
    }
}

struct memory {
    long heap, mapped; // bytes
};

memory memory_now()
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
    act.produce = [](xmlNode *) { return parse(element_of("o", change_of(done.changes).text)); };
    act.inside = handle_change;
    memory warm{};
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
    const memory end = memory_now();
    econf_plugin_close();
    const int left = open_descriptors();

    const long heap_growth = end.heap - warm.heap;
    const long growth = end.mapped - warm.mapped;
    std::printf("  exchanges that went as planned           %llu\n"
                "  changes answered, lost by a hang-up      %llu, %llu\n"
                "  junk, foreign and malformed messages     %llu\n"
                "  hang-ups, reconnections                  %llu, %llu\n"
                "  growth of heap, of all mappings (bytes)  %ld, %ld\n"
                "  descriptors before, after                %d, %d\n"
                "  looks at idle buffers, one page each     %llu\n",
                done.exchanges, counted->answers, done.changes - counted->answers, counted->noises,
                counted->hang_ups, done.connections - 1, heap_growth, growth, descriptors, left,
                done.idle_looks);
    const bool grows = std::max(heap_growth, growth) > growth_limit;
    return done.connections - 1 == counted->hang_ups && descriptors == left &&
           done.idle_looks >= changes && !(SOAK_MEASURES_MEMORY && grows);
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
    void *shared =
        mmap(nullptr, sizeof(figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    counted = static_cast<figures *>(shared);

    FakeDaemon sockets;
    const pid_t daemon = fork();
    if (daemon == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        misbehaving_daemon(sockets).run();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    const bool good = live();
    int status = -1;
    waitpid(daemon, &status, 0);
    munmap(shared, sizeof(figures));
    std::puts(good && status == 0 ? "passed" : "FAILED");
    return good && status == 0 ? 0 : 1;
}
