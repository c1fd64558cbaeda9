// Takes one of the library's roads a number of times, so that a tool can count the instructions.
//
//     instructions PATH COUNT
//     instructions versions      what the counts depend on
//
// The daemon and the reader of the system log are processes of their own. What the roads do is the
// same in every run: requests come in one piece, texts are fixed.
#include "daemon.h"
#include "support/log.h"

#include <array>
#include <gnu/libc-version.h>
#include <libxml/xmlversion.h>
#include <string_view>
#include <sys/utsname.h>

namespace {

constexpr int depth = 64;
int handled = 0;

int on_change(int /*session*/, int /*oper*/, int /*more*/, int /*priority*/, const char * /*path*/)
{
    ++handled;
    return 0;
}

void start_plugin(const std::string &content, int bursts)
{
    const int listener = conf_plugin_service_enable();
    bench::in_background([&] {
        const int sock = bench::accept_plugin(listener);
        std::string burst;
        for (int i = 0; i < depth; ++i) {
            burst += bench::change(1);
        }
        for (int request = 0; request < 2; ++request) { // registration and activation
            (void)bench::answer(sock, "");
        }
        for (; bursts > 0 && bench::send_all(sock, burst); --bursts) {
            for (int i = 0; i < depth; ++i) {
                (void)bench::receive(sock);
            }
        }
        while (bench::answer(sock, content)) {
        }
    });
    (void)close(listener);
    econf_config_cb_info_t configs[] = {{"/demo:settings", 10, on_change}, {nullptr, 0, nullptr}};
    econf_plugin_subpub_info_t callbacks{configs, nullptr, nullptr, nullptr};
    if (econf_plugin_init("instructions", &callbacks) < 0 ||
        econf_plugin_activate(ACTIVATE_WITH_NONE) != 0) {
        bench::give_up("plugin");
    }
}

bool round_trip(int count)
{
    start_plugin("", 0);
    bool good = true;
    for (int i = 0; i < count; ++i) {
        good = good && econf_plugin_save_deployment() == 0;
    }
    return good;
}

bool pushed(int count)
{
    start_plugin("", count);
    pollfd plugin{conf_plg_get_hconf(nullptr), POLLIN, 0};
    while (handled < count * depth && poll(&plugin, 1, -1) == 1) {
        econf_plugin_run();
    }
    return handled == count * depth;
}

bool pull(int count)
{
    start_plugin("<data>" + bench::configuration(16384) + "</data>", 0);
    bool good = true;
    for (int i = 0; i < count; ++i) {
        xmlNode *list = nullptr;
        good = good && econf_plugin_pull(0, "/demo:settings", &list) == 0 && list != nullptr;
        xmlFreeNodeList(list);
    }
    return good;
}

bool system_log(int count)
{
    bench::open_system_log();
    std::string text =
        "[INFO]session 12: <user><name>admin</name><password>correct horse battery"
        "</password></user> \"pre-shared-key\" : abc, secret oldval=foo,newval=bar; ";
    text.resize(200, '.');
    for (int i = 0; i < count; ++i) {
        safety_syslog(14, "%s", text.c_str());
    }
    return true;
}

bool filtered_line(int count)
{
    econf_plugin_config_debug(DBG_ERROR, 1);
    for (int i = 0; i < count; ++i) {
        LOG_FILE_DEBUG("Receive message(seq=%d, length=%d).", i, count);
    }
    return true;
}

bool append(int count)
{
    std::array<char, 1024> piece;
    piece.fill('x');
    bool good = true;
    for (int i = 0; i < count; ++i) {
        conf_buffer_t *buffer = conf_buffer_create(1000);
        for (int k = 0; k < 64; ++k) {
            good = conf_buffer_append(&buffer, piece.data(), piece.size()) == 0 && good;
        }
        conf_buffer_destroy(buffer);
    }
    return good;
}

constexpr struct {
    std::string_view name;
    bool (*take)(int count);
} paths[] = {
    {"round_trip", round_trip},
    {"pushed_64", pushed},
    {"pull_16384", pull},
    {"system_log", system_log},
    {"filtered_line", filtered_line},
    {"append_65536", append},
};

} // namespace

int main(int count, char **arguments)
{
    if (count == 2 && std::string_view(arguments[1]) == "versions") {
        utsname system{};
        (void)uname(&system);
        std::printf("%s, %s %s, libc %s, libxml2 %s\n", system.machine,
#ifdef __clang__
                    "clang",
#else
                    "g++",
#endif
                    __VERSION__, gnu_get_libc_version(), LIBXML_DOTTED_VERSION);
        return 0;
    }
    bench::enter_sandbox();
    for (const auto &path : paths) {
        if (count == 3 && path.name == arguments[1]) {
            return path.take(static_cast<int>(std::strtol(arguments[2], nullptr, 10))) ? 0 : 1;
        }
    }
    std::fprintf(stderr, "usage: instructions PATH COUNT | versions\n");
    return 2;
}
