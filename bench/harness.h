// What the measuring programs with a peer share: the peer is a process of its own, and both run on
// one processor, so that the time of an operation is what both sides spend. The benchmark's process
// is the client; its own processor time is what Google Benchmark calls cpu_time. Benchmarks are
// named WORK/CONTENDER or WORK/CONTENDER/SIZE. bench/run.py runs the programs.
//
// Also the documents of the works, and the daemon's side of them, with as few system calls as it
// can do: one to receive, one to send.
#ifndef CONFSVC_BENCH_HARNESS_H
#define CONFSVC_BENCH_HARNESS_H

#include "daemon.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <map>
#include <memory>
#include <sched.h>
#include <string_view>
#include <utility>

namespace bench {

constexpr int depth = 64; // of the requests that are pushed in one burst
constexpr std::array<std::size_t, 4> pull_sizes = {1024, 16384, 262144, 4194304}; // of the replies

// A request and a reply of the round trip. Peers carry as many bytes.
constexpr std::string_view small_request =
    "<rpc><method>save_deployment</method><params/><id>12</id></rpc>";
constexpr std::string_view small_reply = "<reply><result/><id>00012</id></reply>";
inline const std::string request_text(sizeof(msg_head_t) + small_request.size(), 'q');
inline const std::string reply_text(sizeof(msg_head_t) + small_reply.size(), 'r');

// An operation that the daemon asks for.
constexpr std::string_view operation =
    "<rpc><method>publish</method><params><type>operate</type><session-id>3</session-id>"
    "<callback>1</callback><info><reset><delay>5</delay></reset></info></params><id>17</id></rpc>";
constexpr std::string_view operation_reply = "<reply><result><ok/></result><id>17</id></reply>";

inline std::string name_of(const char *work, const char *contender, std::size_t size = 0)
{
    return std::string(work) + '/' + contender + (size == 0 ? "" : '/' + std::to_string(size));
}

// Real time is that of both processes, processor time that of all threads of this one. Google
// Benchmark chooses how often, unless the environment does: to count instructions.
template <typename function>
benchmark::internal::Benchmark *add(const std::string &name, function body)
{
    auto *made = benchmark::RegisterBenchmark(name.c_str(), body)
                     ->UseRealTime()
                     ->MeasureProcessCPUTime()
                     ->Unit(benchmark::kMicrosecond);
    const char *iterations = std::getenv("CONFSVC_BENCH_ITERATIONS");
    return iterations == nullptr ? made : made->Iterations(std::atoi(iterations));
}

// One operation in each iteration, for as long as Google Benchmark wants, after one that does not
// count: that one connects what connects late, and lets the peer build its reply.
template <typename function>
void repeat(benchmark::State &state, function operate)
{
    bool good = operate();
    while (state.KeepRunning()) {
        if (!good) {
            state.SkipWithError("failed");
            return;
        }
        good = operate();
    }
}

// How far the handling of operations has come that a peer pushes in bursts. The peer may run as
// soon as a burst is answered, so that whoever handles it finds the next one and goes on without
// end: each operation is counted where it is handled, and there the measuring ends.
class progress {
public:
    progress(benchmark::State &state, int burst)
        : state_(state), burst_(burst), going_(state.KeepRunningBatch(burst))
    {
    }
    [[nodiscard]] bool going() const { return going_; }
    void one_handled(bool good)
    {
        if (!good) {
            fail();
        } else if (++handled_ == burst_) {
            handled_ = 0;
            going_ = state_.KeepRunningBatch(burst_);
        }
    }
    void fail()
    {
        state_.SkipWithError("failed");
        going_ = false;
    }

private:
    benchmark::State &state_;
    int burst_;
    int handled_ = 0;
    bool going_;
};

// A process with the other end of a stream; `body` gets that end.
template <typename function>
int start_peer(function body)
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        give_up("socketpair");
    }
    in_background([&] {
        (void)close(ends[0]);
        body(ends[1]);
    });
    (void)close(ends[1]);
    return ends[0];
}

// A reply with a configuration whose body has `size` bytes; with 0, the small reply.
inline std::string reply_of(std::size_t size)
{
    if (size == 0) {
        return framed(std::string(small_reply));
    }
    std::string body = "<reply><result><data>" + configuration(size - 320) + "<pad>";
    const std::string end = "</pad></data></result><id>00012</id></reply>";
    body.resize(size - end.size(), 'x');
    return framed(body + end);
}

// Answers requests that come one at a time. The path "/1024" pulls that many bytes. Ids are written
// with five digits, so that a reply is built but once.
inline void serve(int sock)
{
    std::map<std::size_t, std::string> replies;
    std::array<char, 4096> bytes{};
    for (ssize_t count = 0; (count = recv(sock, bytes.data(), bytes.size(), 0)) > 0;) {
        const std::string_view request(bytes.data(), static_cast<std::size_t>(count));
        const std::size_t path = request.find("<path>/");
        const std::size_t size = path == std::string_view::npos
                                     ? 0
                                     : std::strtoul(request.data() + path + 7, nullptr, 10);
        std::string &reply = replies.try_emplace(size).first->second;
        if (reply.empty()) {
            reply = reply_of(size);
        }
        const std::size_t id = request.rfind("<id>") + 4;
        const std::size_t digits = request.find('<', id) - id;
        char *end = reply.data() + reply.size() - sizeof "</id></reply>" + 1;
        std::memset(end - 5, '0', 5);
        std::memcpy(end - digits, request.data() + id, digits);
        if (!send_all(sock, reply)) {
            return;
        }
    }
}

// Sends operations in bursts, each as soon as everything is answered.
inline void push(int sock, int count)
{
    std::string burst;
    for (int i = 0; i < count; ++i) {
        burst += framed(std::string(operation));
    }
    const std::size_t answer =
        static_cast<std::size_t>(count) * (sizeof(msg_head_t) + operation_reply.size());
    std::array<char, 65536> bytes{};
    while (send_all(sock, burst)) {
        for (std::size_t left = answer; left > 0;) {
            const ssize_t got = recv(sock, bytes.data(), std::min(left, bytes.size()), 0);
            if (got <= 0) {
                return;
            }
            left -= static_cast<std::size_t>(got);
        }
    }
}

// For main(), after the benchmarks were added: runs those that the command line selects.
inline int run(int count, char **arguments)
{
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// For main(), first of all: what the program does happens in namespaces of its own, on one
// processor, the last of those that it may use.
inline void prepare()
{
    enter_sandbox();
    cpu_set_t processors;
    CPU_ZERO(&processors);
    (void)sched_getaffinity(0, sizeof processors, &processors);
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &processors)) {
        --last;
    }
    CPU_ZERO(&processors);
    CPU_SET(last, &processors);
    if (sched_setaffinity(0, sizeof processors, &processors) != 0) {
        give_up("one processor");
    }
    (void)std::signal(SIGCHLD, SIG_IGN);
    (void)std::signal(SIGPIPE, SIG_IGN);
}

} // namespace bench

#endif
