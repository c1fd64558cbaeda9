// One frame as the files of a trace tell of it: what is read out of its envelope, and its body with
// secrets masked. Nothing else of a message gets into these files.
#ifndef CONFSIM_TRACED_FRAME_H
#define CONFSIM_TRACED_FRAME_H

#include "conf_def.h"

#include <libxml/tree.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace confsim {

// Who is at the other end.
struct traced_peer {
    std::string name;        // changes when a plugin registers
    unsigned connection = 0; // does not
};

struct traced_frame {
    enum class kind : std::uint8_t { request, reply, notification, unreadable };

    kind type = kind::unreadable;
    bool is_received = false;         // by confsim
    traced_peer peer{};               // nobody's connection with a notification
    std::string method{};             // of a request
    std::string path{};               // that a request is about, if it is about one
    std::optional<u32_t> id{};        // as far as it is a number
    std::optional<int> code{};        // of a reply that refuses
    std::string text{};               // likewise
    std::optional<msg_head_t> head{}; // as it was on the wire; a notification has none
    std::size_t size = 0;             // of the body on the wire, in bytes
    std::string body{};               // masked; empty when it is unreadable
    std::timespec time{};             // since 1970; left to the caller
};

// `message` is null when it is not well-formed; `body` is what it looks like when it is masked.
[[nodiscard]] traced_frame read_frame(const traced_peer &peer, const msg_head_t &head,
                                      const xmlNode *message, std::string body);

[[nodiscard]] traced_frame read_notification(std::size_t size, std::string body);

} // namespace confsim

#endif
