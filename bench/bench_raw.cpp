// The floor of the message path, in four rows. Each sends and receives the same bytes over a Unix
// stream socket, to the same daemon as the library:
//
// - raw: one system call to send and one to receive, nothing else.
// - raw+calls: the system calls of a plain implementation, and the copies that go with them, but
//   constant text instead of documents.
// - raw+calls+parse, for pulls: and one parse of the reply, which is read where it is, wiped and
//   freed.
// - raw+calls+xml: and what a plain implementation asks of libxml2. To send: it builds the document
//   (elements, text children, ids as text), dumps it into an xmlBuffer and frees both. To receive:
//   it parses a filtered copy of the bytes, copies the root out of the document, wipes and frees
//   the document, walks the copy for its parts, wipes and frees it. A pull also copies the list
//   below <data>, which it then frees for the caller.
//
// A plain implementation waits before it writes and before it reads, with an epoll instance for
// each exchange; reads 1024 bytes at a time; queues what it sends; and re-maps its buffer
// (plain_buffer.h) for each message that leaves it. Nothing is logged.
#include "plain_buffer.h"

#include <libxml/parser.h>
#include <sys/epoll.h>

namespace {

enum class level { raw, calls, parse, xml };

struct free_document {
    void operator()(xmlDoc *document) const { xmlFreeDoc(document); }
    void operator()(xmlNode *node) const { xmlFreeNode(node); }
};
using document = std::unique_ptr<xmlDoc, free_document>;
using tree = std::unique_ptr<xmlNode, free_document>;

// ---- documents ----------------------------------------------------------------------------------

const xmlChar *chars(const char *text)
{
    return reinterpret_cast<const xmlChar *>(text);
}

void wipe(xmlNode *node)
{
    for (; node != nullptr; node = node->next) {
        if (node->type != XML_TEXT_NODE) {
            wipe(node->children);
        } else if (node->content != nullptr) {
            explicit_bzero(node->content, std::strlen(reinterpret_cast<char *>(node->content)));
        }
    }
}

xmlNode *child(const xmlNode *parent, std::string_view name)
{
    xmlNode *node = parent == nullptr ? nullptr : parent->children;
    while (node != nullptr && name != reinterpret_cast<const char *>(node->name)) {
        node = node->next;
    }
    return node;
}

long number(const xmlNode *parent, std::string_view name)
{
    const xmlNode *node = child(parent, name);
    return node == nullptr || node->children == nullptr
               ? 0
               : std::strtol(reinterpret_cast<char *>(node->children->content), nullptr, 10);
}

// The rpc with those parameters.
tree request(const char *method, const char *path)
{
    xmlNode *params = xmlNewNode(nullptr, chars("params"));
    if (path != nullptr) {
        xmlNewTextChild(params, nullptr, chars("path"), chars(path));
    }
    tree rpc(xmlNewNode(nullptr, chars("rpc")));
    xmlNewTextChild(rpc.get(), nullptr, chars("method"), chars(method));
    xmlAddChild(rpc.get(), params);
    xmlNewTextChild(rpc.get(), nullptr, chars("id"), chars("12"));
    return rpc;
}

tree reply_to(long id)
{
    xmlNode *result = xmlNewNode(nullptr, chars("result"));
    xmlNewChild(result, nullptr, chars("ok"), nullptr);
    tree reply(xmlNewNode(nullptr, chars("reply")));
    xmlAddChild(reply.get(), result);
    xmlNewTextChild(reply.get(), nullptr, chars("id"), chars(std::to_string(id).c_str()));
    return reply;
}

// ---- the plain implementation -------------------------------------------------------------------

class client {
public:
    client(int sock, level what) : sock_(sock), what_(what)
    {
        (void)fcntl(sock, F_SETFL, what == level::raw ? 0 : O_NONBLOCK);
    }

    void queue(std::string_view body)
    {
        const msg_head_t head{MSG_MAGIC, static_cast<u32_t>(body.size()), 0, 0};
        out_.append(&head, sizeof head);
        out_.append(body.data(), body.size());
    }

    void queue(xmlNode *root)
    {
        xmlBuffer *text = xmlBufferCreate();
        const int length = xmlNodeDump(text, nullptr, root, 0, 0);
        queue({reinterpret_cast<const char *>(text->content), static_cast<std::size_t>(length)});
        xmlBufferFree(text);
    }

    // Writes what is queued, and waits for a message when `wanted`.
    bool exchange(bool wanted)
    {
        const unsigned events = EPOLLOUT | EPOLLRDHUP | EPOLLET | (wanted ? EPOLLIN : 0U);
        epoll_event event{events, {}};
        const int waiter = epoll_create1(EPOLL_CLOEXEC);
        bool good = epoll_ctl(waiter, EPOLL_CTL_ADD, sock_, &event) == 0;
        bool done = false;
        while (good && !done) {
            good = epoll_wait(waiter, &event, 1, -1) == 1 && (event.events & EPOLLRDHUP) == 0;
            if (good && (event.events & EPOLLOUT) != 0 && out_.length() > 0) {
                const auto length = static_cast<ssize_t>(out_.length());
                good = write(sock_, out_.data(), out_.length()) == length;
                out_.remove(out_.length());
            }
            done = wanted ? good && (event.events & EPOLLIN) != 0 && receive() : good;
        }
        (void)close(waiter);
        return good;
    }

    // Reads until the buffer begins with a whole message; false when there is none yet.
    bool receive()
    {
        for (;;) {
            if (in_.length() >= sizeof(msg_head_t) && in_.length() >= size()) {
                return true;
            }
            std::array<char, 1024> bytes;
            const ssize_t count = read(sock_, bytes.data(), bytes.size());
            if (count <= 0) {
                return false;
            }
            in_.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }

    // Cuts the first message out of the buffer, and parses it.
    document take()
    {
        const std::size_t length = size() - sizeof(msg_head_t);
        const std::unique_ptr<char, decltype(&std::free)> copy(
            static_cast<char *>(std::malloc(length)), std::free);
        std::memcpy(copy.get(), in_.data() + sizeof(msg_head_t), length);
        document parsed;
        if (what_ >= level::parse) {
            for (std::size_t i = 0; i < length; ++i) {
                char &byte = copy.get()[i];
                if (static_cast<unsigned char>(byte) < 32 && byte != 9 && byte != 10 &&
                    byte != 13) {
                    byte = ' ';
                }
            }
            parsed.reset(xmlReadMemory(copy.get(), static_cast<int>(length), nullptr, "utf-8",
                                       XML_PARSE_NOBLANKS));
        }
        in_.remove(length + sizeof(msg_head_t));
        return parsed;
    }

    // The same, for a tree that stands by itself.
    tree take_tree()
    {
        const document parsed = take();
        xmlNode *root = xmlDocGetRootElement(parsed.get());
        tree copy(xmlCopyNode(root, 1));
        wipe(root);
        return copy;
    }

private:
    [[nodiscard]] std::size_t size() const
    {
        msg_head_t head;
        std::memcpy(&head, in_.data(), sizeof head);
        return sizeof head + head.length;
    }

    int sock_;
    level what_;
    bench::plain_buffer in_;
    bench::plain_buffer out_;
};

// ---- the works ----------------------------------------------------------------------------------

// A request and its reply of `size` bytes, the small one when that is 0.
void ask(benchmark::State &state, level what, std::size_t size)
{
    const int sock = bench::start_peer(bench::serve);
    const std::string path = '/' + std::to_string(size);
    const std::string body = size == 0 ? std::string(bench::small_request)
                                       : "<rpc><method>pull</method><params><path>" + path +
                                             "</path></params><id>12</id></rpc>";
    const std::string bytes = bench::framed(body);
    std::string reply(bench::reply_of(size).size(), 0);
    client plain(sock, what);

    const auto calls = [&] {
        plain.queue(body);
        const bool good = plain.exchange(true);
        if (const document parsed = plain.take()) {
            wipe(xmlDocGetRootElement(parsed.get()));
        }
        return good;
    };
    const auto documents = [&] {
        const tree rpc =
            size == 0 ? request("save_deployment", nullptr) : request("pull", path.c_str());
        plain.queue(rpc.get());
        if (!plain.exchange(true)) {
            return false;
        }
        const tree answer = plain.take_tree();
        const xmlNode *result = child(answer.get(), "result");
        const bool good = number(answer.get(), "id") == 12 && result != nullptr;
        if (const xmlNode *data = child(result, "data")) {
            xmlFreeNodeList(xmlDocCopyNodeList(nullptr, data->children));
        }
        wipe(answer.get());
        return good;
    };
    if (what == level::raw) {
        bench::repeat(state, [&] {
            return bench::send_all(sock, bytes) &&
                   recv(sock, reply.data(), reply.size(), MSG_WAITALL) ==
                       static_cast<ssize_t>(reply.size());
        });
    } else if (what == level::xml) {
        bench::repeat(state, documents);
    } else {
        bench::repeat(state, calls);
    }
    (void)close(sock);
}

// Answers operations, which come in bursts of `depth`.
void pushed(benchmark::State &state, level what, int depth)
{
    const int sock = bench::start_peer([=](int end) { bench::push(end, depth); });
    const std::string reply = bench::framed(std::string(bench::operation_reply));
    std::string bytes(bench::framed(std::string(bench::operation)).size(), 0);
    client plain(sock, what);
    bench::progress operations(state, depth);

    const auto answer = [&] {
        if (what == level::calls) {
            (void)plain.take();
            plain.queue(bench::operation_reply);
            return plain.exchange(false);
        }
        const tree rpc = plain.take_tree();
        const xmlNode *params = child(rpc.get(), "params");
        const bool good = child(rpc.get(), "method") != nullptr &&
                          child(params, "type") != nullptr && number(params, "session-id") == 3 &&
                          number(params, "callback") == 1;
        const tree reply_tree = reply_to(number(rpc.get(), "id"));
        plain.queue(reply_tree.get());
        wipe(rpc.get());
        return good && plain.exchange(false);
    };
    const auto raw = [&] {
        return recv(sock, bytes.data(), bytes.size(), MSG_WAITALL) > 0 &&
               bench::send_all(sock, reply);
    };
    pollfd events{sock, POLLIN, 0};
    while (operations.going()) {
        if (what == level::raw) {
            operations.one_handled(raw());
        } else if (plain.receive()) {
            operations.one_handled(answer());
        } else if (poll(&events, 1, -1) != 1 || events.revents != POLLIN) {
            operations.fail();
        }
    }
    (void)close(sock);
}

constexpr std::pair<level, const char *> rows[] = {{level::raw, "raw"},
                                                   {level::calls, "raw+calls"},
                                                   {level::parse, "raw+calls+parse"},
                                                   {level::xml, "raw+calls+xml"}};

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    for (const auto &row : rows) {
        const level what = row.first;
        const char *const name = row.second;
        for (const std::size_t size : bench::pull_sizes) {
            bench::add(bench::name_of("pull", name, size),
                       [=](benchmark::State &state) { ask(state, what, size); });
        }
        if (what == level::parse) {
            continue;
        }
        bench::add(bench::name_of("round_trip", name),
                   [=](benchmark::State &state) { ask(state, what, 0); });
        for (const int depth : {1, bench::depth}) {
            bench::add(bench::name_of("pushed", name, static_cast<std::size_t>(depth)),
                       [=](benchmark::State &state) { pushed(state, what, depth); });
        }
    }
    return bench::run(count, arguments);
}
