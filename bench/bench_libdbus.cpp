// libdbus, peer to peer: the peer listens on a socket of the file system.
#include "dbus_peer.h"

#include <dbus/dbus.h>

namespace {

struct release {
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};
using owned_message = std::unique_ptr<DBusMessage, release>;

class endpoint {
public:
    using message = DBusMessage;

    explicit endpoint(DBusConnection *bus) : bus_(bus)
    {
        if (bus == nullptr || dbus_connection_add_filter(bus, on_message, this, nullptr) == FALSE) {
            bench::give_up("connection");
        }
    }
    virtual ~endpoint()
    {
        dbus_connection_close(bus_);
        dbus_connection_unref(bus_);
    }
    endpoint(const endpoint &) = delete;
    endpoint &operator=(const endpoint &) = delete;

protected:
    virtual void called(message *call, std::string_view method, std::string_view bytes) = 0;
    virtual void answered(bool /*good*/) {}

    std::string_view call(const char *method, std::string_view bytes)
    {
        reply_.reset(dbus_connection_send_with_reply_and_block(bus_, made(method, bytes).get(),
                                                               DBUS_TIMEOUT_INFINITE, nullptr));
        return reply_ == nullptr ? std::string_view() : bytes_of(reply_.get());
    }
    void push(const char *method, std::string_view bytes)
    {
        DBusPendingCall *pending = nullptr;
        (void)dbus_connection_send_with_reply(bus_, made(method, bytes).get(), &pending,
                                              DBUS_TIMEOUT_INFINITE);
        (void)dbus_pending_call_set_notify(pending, on_answer, this, nullptr);
        dbus_pending_call_unref(pending);
    }
    bool reply(message *call, std::string_view bytes)
    {
        const owned_message reply = filled(dbus_message_new_method_return(call), bytes);
        return dbus_connection_send(bus_, reply.get(), nullptr) != FALSE;
    }
    bool process() { return dbus_connection_read_write_dispatch(bus_, -1) != FALSE; }

private:
    static std::string_view bytes_of(message *from)
    {
        const char *bytes = nullptr;
        int size = 0;
        (void)dbus_message_get_args(from, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &size,
                                    DBUS_TYPE_INVALID);
        return {bytes, static_cast<std::size_t>(size)};
    }
    static owned_message filled(message *made, std::string_view bytes)
    {
        const char *data = bytes.data();
        if (dbus_message_append_args(made, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                                     static_cast<int>(bytes.size()), DBUS_TYPE_INVALID) == FALSE) {
            bench::give_up("message");
        }
        return owned_message(made);
    }
    static owned_message made(const char *method, std::string_view bytes)
    {
        return filled(dbus_message_new_method_call(nullptr, bench::dbus_object,
                                                   bench::dbus_interface, method),
                      bytes);
    }
    static DBusHandlerResult on_message(DBusConnection * /*bus*/, message *call, void *data)
    {
        if (dbus_message_has_interface(call, bench::dbus_interface) == FALSE) {
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        static_cast<endpoint *>(data)->called(call, dbus_message_get_member(call), bytes_of(call));
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    static void on_answer(DBusPendingCall *pending, void *data)
    {
        const owned_message reply(dbus_pending_call_steal_reply(pending));
        const bool good = dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_ERROR;
        static_cast<endpoint *>(data)->answered(good);
    }

    DBusConnection *bus_;
    owned_message reply_;
};

// A server wants a main loop; this one waits for one client, on the one descriptor there is.
DBusConnection *accept_on(DBusServer *server)
{
    DBusConnection *client = nullptr;
    DBusWatch *watch = nullptr;
    dbus_server_set_new_connection_function(
        server,
        [](DBusServer * /*server*/, DBusConnection *made, void *data) {
            *static_cast<DBusConnection **>(data) = dbus_connection_ref(made);
        },
        &client, nullptr);
    (void)dbus_server_set_watch_functions(
        server,
        [](DBusWatch *added, void *data) -> dbus_bool_t {
            *static_cast<DBusWatch **>(data) = added;
            return TRUE;
        },
        [](DBusWatch * /*watch*/, void * /*data*/) {}, nullptr, &watch, nullptr);
    while (client == nullptr) {
        pollfd events{dbus_watch_get_unix_fd(watch), POLLIN, 0};
        (void)poll(&events, 1, -1);
        (void)dbus_watch_handle(watch, DBUS_WATCH_READABLE);
    }
    return client;
}

std::string start_peer()
{
    const std::string address = "unix:path=" + bench::fresh_path();
    return bench::started([&](int ready) {
        DBusServer *server = dbus_server_listen(address.c_str(), nullptr);
        if (server != nullptr && bench::send_all(ready, address)) {
            bench::dbus_peer<endpoint>(accept_on(server)).run();
        }
    });
}

struct client : bench::dbus_client<endpoint> {
    client() : dbus_client(dbus_connection_open_private(start_peer().c_str(), nullptr)) {}
};

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    bench::add_peer<client>("libdbus");
    return bench::run(count, arguments);
}
