// See connection.h.
#include "service/connection.h"

#include "conf_def.h"
#include "conf_plugin.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <new>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace confsim {

namespace {

// The whole configuration of a device takes a few megabytes; a longer message is damage.
constexpr std::size_t longest_body = std::size_t{64} * 1024 * 1024;

// One round of reading, so that a peer that never stops sending holds up nobody else.
constexpr int read_rounds = 4;
constexpr std::size_t read_size = 16384;

// A peer that has this much to read already gets nothing more. A single message may be longer.
constexpr std::size_t unsent_limit = std::size_t{1024} * 1024;

// What a damaged stream may cost before it is given up.
constexpr std::size_t skipped_bytes_limit = std::size_t{1024} * 1024;
constexpr int unreadable_messages_limit = 16;

// In a PID namespace a process has an id in each namespace around it as well; the own one is last.
std::string peer_process(int descriptor)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return "unknown";
    }
    const std::string id = std::to_string(peer.pid);
    std::ifstream status("/proc/" + id + "/status");
    std::string line;
    while (std::getline(status, line) && !line.starts_with("NSpid:")) {
    }
    const std::string own = line.substr(line.find_last_of(" \t") + 1);
    return own.empty() || own == id ? id : id + " (" + own + " inside)";
}

// By which traces tell connections apart.
unsigned next_number()
{
    static unsigned last = 0;
    return ++last;
}

msg_head_t read_head(const char *bytes)
{
    msg_head_t head{};
    std::memcpy(&head, bytes, sizeof head);
    return head;
}

bool is_plausible(const msg_head_t &head)
{
    return head.magic == MSG_MAGIC && head.length <= longest_body;
}

// Where, behind the first byte, a header stands, or may begin that has not arrived whole.
std::size_t next_header(std::string_view data)
{
    const u32_t magic = MSG_MAGIC;
    const std::string_view wanted(reinterpret_cast<const char *>(&magic), sizeof magic);
    const std::size_t last_whole = data.size() - sizeof(msg_head_t);
    for (std::size_t at = 1;; ++at) {
        at = data.find(wanted, at);
        if (at == std::string_view::npos) {
            return data.size() - (sizeof magic - 1);
        }
        if (at > last_whole || is_plausible(read_head(data.data() + at))) {
            return at;
        }
    }
}

} // namespace

connection::connection(int descriptor, const tracer &trace)
    : descriptor_(descriptor),
      process_(peer_process(descriptor)), peer_{"process " + process_, next_number()},
      trace_(trace), received_(conf_buffer_create(0))
{
    if (received_ == nullptr) {
        close(descriptor_);
        throw std::bad_alloc();
    }
}

connection::~connection()
{
    close(descriptor_);
}

std::vector<xml::node_ptr> connection::receive()
{
    const bool ended = read_available();
    std::vector<xml::node_ptr> messages;
    while (begins_with_frame()) {
        messages.push_back(take_message());
        if (messages.back() == nullptr && ++unreadable_messages_ > unreadable_messages_limit) {
            throw broken("sent too many messages that are not XML");
        }
    }
    if (ended && messages.empty()) {
        throw broken(end_);
    }
    return messages;
}

// Returns whether the stream has ended.
bool connection::read_available()
{
    std::array<char, read_size> bytes{};
    for (int round = 0; round < read_rounds; ++round) {
        const ssize_t count = recv(descriptor_, bytes.data(), bytes.size(), 0);
        if (count == 0 || (count < 0 && errno == ECONNRESET)) {
            return true;
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return false;
        }
        if (count < 0) {
            throw broken(std::string("cannot be read from: ") + std::strerror(errno));
        }
        conf_buffer_t *grown = received_.release();
        const int appended = conf_buffer_append(&grown, bytes.data(), static_cast<int>(count));
        received_.reset(grown);
        if (appended != 0) {
            throw std::bad_alloc();
        }
    }
    return false;
}

bool connection::begins_with_frame()
{
    for (;;) {
        const std::size_t length = static_cast<std::size_t>(conf_buffer_length(received_.get()));
        if (length < sizeof(msg_head_t)) {
            return false;
        }
        const msg_head_t head = read_head(conf_buffer_data(received_.get()));
        if (is_plausible(head)) {
            return length >= sizeof head + head.length;
        }
        skip_damage();
    }
}

void connection::skip_damage()
{
    const std::size_t length = static_cast<std::size_t>(conf_buffer_length(received_.get()));
    const std::size_t skipped = next_header({conf_buffer_data(received_.get()), length});
    conf_buffer_remove(received_.get(), 0, static_cast<int>(skipped));
    skipped_bytes_ += skipped;
    if (skipped_bytes_ > skipped_bytes_limit) {
        throw broken("sent too much that is no message");
    }
}

xml::node_ptr connection::take_message()
{
    const msg_head_t head = read_head(conf_buffer_data(received_.get()));
    conf_buffer_t *rest = received_.release();
    xml::node_ptr message(plugin_parse_message(&rest));
    received_.reset(rest);
    trace_.received(peer_, head, message.get());
    return message;
}

void connection::send(xmlNode *message)
{
    xmlBuffer *body = xmlBufferCreate();
    const int length = body == nullptr ? -1 : xmlNodeDump(body, nullptr, message, 0, 0);
    if (length <= 0) {
        xmlBufferFree(body);
        throw std::bad_alloc();
    }
    const msg_head_t head = {MSG_MAGIC, static_cast<u32_t>(length), static_cast<u16_t>(sequence_++),
                             0};
    std::string frame(reinterpret_cast<const char *>(&head), sizeof head);
    frame.append(reinterpret_cast<const char *>(xmlBufferContent(body)),
                 static_cast<std::size_t>(length));
    xmlBufferFree(body);
    trace_.sent(peer_, head, message);
    if (way_) {
        way_(std::move(frame));
    } else {
        send_bytes(frame);
    }
}

void connection::send_bytes(std::string_view bytes)
{
    if (unsent_.size() > unsent_limit) {
        throw broken("does not read what it is sent");
    }
    unsent_.append(bytes);
    flush();
}

void connection::hang_up(std::string why)
{
    end_ = std::move(why);
    unsent_.clear();
    (void)shutdown(descriptor_, SHUT_RDWR);
}

void connection::flush()
{
    while (!unsent_.empty()) {
        const ssize_t count = ::send(descriptor_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            return;
        }
        if (count < 0 && (errno == EPIPE || errno == ECONNRESET)) {
            unsent_.clear(); // the end is noticed when all that it sent has been read
            return;
        }
        if (count < 0 && errno != EINTR) {
            throw broken(std::string("cannot be written to: ") + std::strerror(errno));
        }
        unsent_.erase(0, static_cast<std::size_t>(count < 0 ? 0 : count));
    }
}

} // namespace confsim
