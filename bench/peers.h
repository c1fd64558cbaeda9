// What the programs share that measure other libraries: the works, which are the same for each,
// with as many bytes of payload as the library's own. Such a program has a class for the measured
// side, or one for each kind of work. Its constructor starts the peer and connects to it;
// - ask() sends one request, and looks at the reply (round_trip, pull);
// - start() lets the peer push bursts, handle() waits for operations and answers them (pushed).
#ifndef CONFSVC_BENCH_PEERS_H
#define CONFSVC_BENCH_PEERS_H

#include "harness.h"

namespace bench {

// A path that nobody has used yet.
inline std::string fresh_path()
{
    static int number = 0;
    return "/var/tmp/peer-" + std::to_string(++number);
}

// Runs `body` in a process of its own, and waits for what it writes to the descriptor that it gets
// when it is ready to be connected to.
template <typename function>
std::string started(function body)
{
    const int sock = start_peer(body);
    std::array<char, 256> text{};
    const ssize_t length = recv(sock, text.data(), text.size(), 0);
    if (length <= 0) {
        give_up("peer");
    }
    (void)close(sock);
    return {text.data(), static_cast<std::size_t>(length)};
}

inline std::size_t number(std::string_view digits)
{
    return std::strtoul(std::string(digits).c_str(), nullptr, 10);
}

// The peer's side of a request, which is a size in digits or else a small one.
inline const std::string &reply_to(std::string_view request)
{
    static std::map<std::size_t, std::string> replies;
    if (request == request_text) {
        return reply_text;
    }
    const std::size_t size = number(request);
    return replies.try_emplace(size, size, 'r').first->second;
}

// A reply counts only when whole.
inline bool is_reply(std::string_view bytes, std::size_t size)
{
    return bytes.size() == size && bytes.front() == 'r' && bytes.back() == 'r';
}

template <typename asker, typename handler = asker>
void add_peer(const char *name)
{
    const auto asking = [](const std::string &request, std::size_t size) {
        return [=](benchmark::State &state) {
            asker peer;
            repeat(state, [&] { return peer.ask(request, size); });
        };
    };
    add(name_of("round_trip", name), asking(request_text, reply_text.size()));
    for (const std::size_t size : pull_sizes) {
        add(name_of("pull", name, size), asking(std::to_string(size), size));
    }
    for (const int burst : {1, depth}) {
        add(name_of("pushed", name, static_cast<std::size_t>(burst)), [=](benchmark::State &state) {
            handler peer;
            peer.start(burst);
            progress operations(state, burst);
            while (operations.going()) {
                peer.handle(operations);
            }
        });
    }
}

} // namespace bench

#endif
