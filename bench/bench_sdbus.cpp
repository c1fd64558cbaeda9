// sd-bus, peer to peer over a pair of sockets, and through a bus of its own, whose daemon runs on
// the same processor.
#include "dbus_peer.h"

#include <fstream>
#include <systemd/sd-bus.h>

namespace {

constexpr const char *bus_address = "unix:path=/var/tmp/bus";

void require(int result)
{
    if (result < 0) {
        errno = -result;
        bench::give_up("sd-bus");
    }
}

struct release {
    void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using connection = std::unique_ptr<sd_bus, release>;
using owned_message = std::unique_ptr<sd_bus_message, release>;

// ---- an end
// --------------------------------------------------------------------------------------

class endpoint {
public:
    using message = sd_bus_message;

    // With the name of the other end, where that is needed and known.
    explicit endpoint(connection bus, std::string other = {})
        : bus_(std::move(bus)), other_(std::move(other))
    {
        require(sd_bus_add_object(bus_.get(), nullptr, bench::dbus_object, on_call, this));
    }
    virtual ~endpoint() = default;
    endpoint(const endpoint &) = delete;
    endpoint &operator=(const endpoint &) = delete;

protected:
    virtual void called(message *call, std::string_view method, std::string_view bytes) = 0;
    virtual void answered(bool /*good*/) {}

    std::string_view call(const char *method, std::string_view bytes)
    {
        message *reply = nullptr;
        require(sd_bus_call(bus_.get(), made(method, bytes).get(), 0, nullptr, &reply));
        reply_.reset(reply);
        return bytes_of(reply);
    }
    void push(const char *method, std::string_view bytes)
    {
        require(sd_bus_call_async(bus_.get(), nullptr, made(method, bytes).get(), on_answer, this,
                                  UINT64_MAX));
    }
    static bool reply(message *call, std::string_view bytes)
    {
        message *reply = nullptr;
        require(sd_bus_message_new_method_return(call, &reply));
        return sd_bus_send(nullptr, filled(reply, bytes).get(), nullptr) >= 0;
    }
    bool process()
    {
        const int result = sd_bus_process(bus_.get(), nullptr);
        return result > 0 || (result == 0 && sd_bus_wait(bus_.get(), UINT64_MAX) >= 0);
    }

private:
    static std::string_view bytes_of(message *from)
    {
        const void *data = nullptr;
        std::size_t size = 0;
        require(sd_bus_message_read_array(from, 'y', &data, &size));
        return {static_cast<const char *>(data), size};
    }
    static owned_message filled(message *made, std::string_view bytes)
    {
        require(sd_bus_message_append_array(made, 'y', bytes.data(), bytes.size()));
        return owned_message(made);
    }
    owned_message made(const char *method, std::string_view bytes)
    {
        message *call = nullptr;
        require(sd_bus_message_new_method_call(bus_.get(), &call,
                                               other_.empty() ? nullptr : other_.c_str(),
                                               bench::dbus_object, bench::dbus_interface, method));
        return filled(call, bytes);
    }
    static int on_call(message *call, void *data, sd_bus_error * /*error*/)
    {
        auto *self = static_cast<endpoint *>(data);
        const char *sender = sd_bus_message_get_sender(call);
        if (self->other_.empty() && sender != nullptr) {
            self->other_ = sender;
        }
        self->called(call, sd_bus_message_get_member(call), bytes_of(call));
        return 1;
    }
    static int on_answer(message *reply, void *data, sd_bus_error * /*error*/)
    {
        const bool good = sd_bus_message_is_method_error(reply, nullptr) == 0;
        static_cast<endpoint *>(data)->answered(good);
        return 1;
    }

    connection bus_;
    std::string other_;
    owned_message reply_;
};

using peer = bench::dbus_peer<endpoint>;
using client = bench::dbus_client<endpoint>;

connection new_bus()
{
    sd_bus *bus = nullptr;
    require(sd_bus_new(&bus));
    return connection(bus);
}

// ---- peer to peer
// --------------------------------------------------------------------------------

connection connect_pair(int sock, bool server)
{
    connection bus = new_bus();
    require(sd_bus_set_fd(bus.get(), sock, sock));
    if (server) {
        sd_id128_t id;
        require(sd_id128_randomize(&id));
        require(sd_bus_set_server(bus.get(), 1, id));
    }
    require(sd_bus_start(bus.get()));
    return bus;
}

int start_pair_peer()
{
    return bench::start_peer([](int sock) { peer(connect_pair(sock, true)).run(); });
}

struct direct_client : client {
    direct_client() : client(connect_pair(start_pair_peer(), false)) {}
};

// ---- through a bus
// -------------------------------------------------------------------------------

// The daemon lives as long as this process.
void start_bus()
{
    const std::string file = bench::fresh_path();
    std::ofstream(file) << "<busconfig><listen>" << bus_address
                        << "</listen><auth>EXTERNAL</auth><policy context='default'>"
                           "<allow user='*'/><allow own='*'/><allow send_type='*'/>"
                           "<allow receive_type='*'/></policy></busconfig>";
    (void)bench::started([&](int ready) {
        const std::string print = "--print-address=" + std::to_string(dup(ready));
        (void)execlp("dbus-daemon", "dbus-daemon", "--nofork", ("--config-file=" + file).c_str(),
                     print.c_str(), nullptr);
    });
}

connection connect_bus()
{
    connection bus = new_bus();
    require(sd_bus_set_address(bus.get(), bus_address));
    require(sd_bus_set_bus_client(bus.get(), 1));
    require(sd_bus_start(bus.get()));
    return bus;
}

// The peer says its name when it is ready.
std::string start_bus_peer()
{
    return bench::started([](int ready) {
        connection bus = connect_bus();
        const char *name = nullptr;
        require(sd_bus_get_unique_name(bus.get(), &name));
        const std::string text = name;
        peer self(std::move(bus));
        if (bench::send_all(ready, text)) {
            self.run();
        }
    });
}

class bus_client : public client {
public:
    bus_client() : bus_client(start_bus_peer()) {}

private: // the peer is forked first, so that it does not keep this process connected
    explicit bus_client(std::string name) : client(connect_bus(), std::move(name)) {}
};

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    start_bus();
    bench::add_peer<direct_client>("sd-bus");
    bench::add_peer<bus_client>("sd-bus-via-bus");
    return bench::run(count, arguments);
}
