// What the library does without a peer, or with one that only makes it start: logs, buffer, paths,
// look-ups. Beside it, where there is one, the plain call that does the bare work.
//
//     syslog_TEXT       one message to the system log; what a hostile text does is told below
//     debug_line        a line for the debug file that its level keeps out, or lets in
//     append            bytes in pieces of 1 KiB to a new buffer, which is released, too
//     rm_quotes, *2*    forms of a path, of that many bytes
//     callbacks         one change for the last of that many callbacks
//     registry          the context of the process, among the records of that many
#include "conf_misc.h"
#include "conf_plugin/plugin_internal.h"
#include "harness.h"
#include "support/log.h"

#include <cstdio>
#include <ctime>
#include <syslog.h>
#include <vector>

namespace {

// ---- system log ---------------------------------------------------------------------------------

std::string filled(const std::string &piece, std::size_t size)
{
    std::string text;
    while (text.size() < size) {
        text += piece;
    }
    return text.substr(0, size);
}

// The worst that a search for slow texts has found: one long line in which every byte could belong
// to a keyword, with keywords and marks behind it in an order that sends some searches back to its
// begin, in vain.
std::string hostile(std::size_t size)
{
    const std::string end = "key\" oldval=<secret password>psk ,newval=</authentication-text "
                            "text-name \": x";
    return std::string(size > end.size() ? size - end.size() : 0, 'k') + end;
}

struct message {
    const char *work;
    std::string (*build)(std::size_t size);
};

constexpr std::array<message, 3> messages = {{
    {"syslog_harmless",
     [](std::size_t size) { return filled("session 12: interface eth0 is up, mtu 1500; ", size); }},
    {"syslog_sensitive",
     [](std::size_t size) {
         return filled("session 12: <password>correct horse battery</password> set\n", size);
     }},
    {"syslog_hostile", [](std::size_t size) { return hostile(size).substr(0, size); }},
}};

template <typename function>
void log_message(benchmark::State &state, const std::string &text, function send)
{
    bench::repeat(state, [&] {
        send(LOG_USER | LOG_INFO, "%s", text.c_str());
        return true;
    });
}

void add_messages()
{
    for (const message &message : messages) {
        for (const std::size_t size : {60, 200, 1000, 65535}) { // more is not sent
            const std::string text = message.build(size);
            bench::add(bench::name_of(message.work, "syslog", size),
                       [=](benchmark::State &state) { log_message(state, text, syslog); });
            bench::add(bench::name_of(message.work, "confsvc", size),
                       [=](benchmark::State &state) { log_message(state, text, safety_syslog); });
        }
    }
}

// ---- debug file ---------------------------------------------------------------------------------

void debug_line(benchmark::State &state, int level)
{
    econf_plugin_config_debug(level, 1);
    int number = 0;
    bench::repeat(state, [&] {
        LOG_FILE_DEBUG("Receive message(seq=%d, length=%d).", ++number, 1234);
        return true;
    });
    econf_plugin_config_debug(0, 0);
}

// Opens, writes and closes for each line, too.
void plain_line(benchmark::State &state)
{
    int number = 0;
    bench::repeat(state, [&] {
        std::FILE *file = std::fopen("/var/log/plain.log", "ae");
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        (void)localtime_r(&now, &local);
        std::array<char, 32> time{};
        (void)std::strftime(time.data(), time.size(), "%F %T", &local);
        return file != nullptr &&
               std::fprintf(file, "%s[DEBUG] - Receive message(seq=%d, length=%d).\r\n",
                            time.data(), ++number, 1234) > 0 &&
               std::fclose(file) == 0;
    });
}

// ---- buffer -------------------------------------------------------------------------------------

std::array<char, 1024> piece;

void append(benchmark::State &state, std::size_t size)
{
    bench::repeat(state, [=] {
        conf_buffer_t *buffer = conf_buffer_create(0);
        bool good = true;
        for (std::size_t held = 0; held < size; held += piece.size()) {
            good = conf_buffer_append(&buffer, piece.data(), piece.size()) == 0 && good;
        }
        conf_buffer_destroy(buffer);
        return good;
    });
}

void append_to_string(benchmark::State &state, std::size_t size)
{
    bench::repeat(state, [=] {
        std::string buffer;
        for (std::size_t held = 0; held < size; held += piece.size()) {
            buffer.append(piece.data(), piece.size());
        }
        benchmark::DoNotOptimize(buffer.data());
        return true;
    });
}

// ---- paths --------------------------------------------------------------------------------------

void rm_quotes(benchmark::State &state, const std::string &path)
{
    std::vector<char> text(path.size() + 1);
    bench::repeat(state, [&] {
        std::memcpy(text.data(), path.c_str(), text.size());
        return datastore_path_rm_quotes(text.data())[0] == '/';
    });
}

void convert(benchmark::State &state, char *(*conversion)(const char *), const std::string &path)
{
    bench::repeat(state, [&] {
        char *other = conversion(path.c_str());
        const bool good = other != nullptr && other[0] == '/';
        std::free(other);
        return good;
    });
}

void add_paths()
{
    const std::string quoted = R"(/demo:item[name="eth0",unit="1"])";
    const std::string prefixed = "/demo:item/demo:leaf/other:ext";
    for (const std::size_t size : {1024, 16384, 262144}) {
        bench::add(bench::name_of("rm_quotes", "confsvc", size),
                   [=](benchmark::State &state) { rm_quotes(state, filled(quoted, size)); });
        const auto add = [=](const char *work, char *(*conversion)(const char *),
                             const std::string &path) {
            bench::add(bench::name_of(work, "confsvc", size), [=](benchmark::State &state) {
                convert(state, conversion, filled(path, size));
            });
        };
        add("schema2std", plugin_path_schema2std, prefixed);
        add("data2std", plugin_path_data2std, quoted);
        add("std2db", plugin_path_std2db, quoted);
    }
}

// ---- look-ups -----------------------------------------------------------------------------------

int handled = 0;

int on_change(int /*session*/, int /*oper*/, int /*more*/, int /*priority*/, const char * /*path*/)
{
    return ++handled, 0;
}

int on_other(int /*session*/, int /*oper*/, int /*more*/, int /*priority*/, const char * /*path*/)
{
    return -1;
}

void callbacks(benchmark::State &state, std::size_t count)
{
    const int listener = conf_plugin_service_enable();
    bench::in_background([=] {
        const int sock = bench::accept_plugin(listener);
        const std::string change = bench::change(count);
        if (bench::answer(sock, "") && bench::answer(sock, "")) { // to register and activate
            while (bench::send_all(sock, change) && !bench::receive(sock).empty()) {
            }
        }
    });
    (void)close(listener);
    std::vector<econf_config_cb_info_t> configs(count, {"/demo:settings", 10, on_other});
    configs.back().callback = on_change;
    configs.push_back({nullptr, 0, nullptr});
    econf_plugin_subpub_info_t all{configs.data(), nullptr, nullptr, nullptr};
    if (econf_plugin_init("bench", &all) < 0 || econf_plugin_activate(ACTIVATE_WITH_NONE) != 0) {
        bench::give_up("plugin");
    }
    pollfd socket{conf_plg_get_hconf(nullptr), POLLIN, 0};
    int wanted = handled = 0;
    bench::repeat(state, [&] {
        for (++wanted; handled < wanted && poll(&socket, 1, -1) == 1;) {
            econf_plugin_run();
        }
        return handled >= wanted;
    });
    econf_plugin_close();
}

// The record of this process comes last, as in one that was just forked.
void registry(benchmark::State &state, std::size_t count)
{
    (void)get_plugin_from_hash();
    del_plugin_from_hash();
    std::vector<std::string> others;
    for (std::size_t i = 1; i < count; ++i) { // of the processes that this one was forked from
        others.push_back("plugin_tid_" + std::to_string(getpid() - static_cast<int>(i)));
        conf_plugin_data other{};
        (void)conf_hash_add(g_plugin_hash, others.back().data(), &other, sizeof other);
    }
    conf_plugin_context_t context{};
    get_plugin_from_hash()->plugin_ctxt = &context;
    bench::repeat(state, [own = &context] { return get_plugin_context() == own; });
    for (std::string &key : others) {
        conf_hash_del(g_plugin_hash, key.data());
    }
    del_plugin_from_hash();
}

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    bench::open_system_log();
    piece.fill('x');
    add_messages();
    bench::add("debug_line/confsvc/filtered",
               [](benchmark::State &state) { debug_line(state, DBG_ERROR); });
    bench::add("debug_line/confsvc/written",
               [](benchmark::State &state) { debug_line(state, DBG_DEBUG); });
    bench::add("debug_line/stdio/written", plain_line);
    for (const std::size_t kib : {1, 64, 1024, 16384, 65536, 262144}) {
        const std::size_t size = kib * piece.size();
        bench::add(bench::name_of("append", "confsvc", size),
                   [=](benchmark::State &state) { append(state, size); });
        bench::add(bench::name_of("append", "std::string", size),
                   [=](benchmark::State &state) { append_to_string(state, size); });
    }
    add_paths();
    for (const std::size_t number : {1, 10, 100, 1000}) {
        bench::add(bench::name_of("callbacks", "confsvc", number),
                   [=](benchmark::State &state) { callbacks(state, number); });
    }
    for (const std::size_t number : {1, 8, 64}) {
        bench::add(bench::name_of("registry", "confsvc", number),
                   [=](benchmark::State &state) { registry(state, number); });
    }
    return bench::run(count, arguments);
}
