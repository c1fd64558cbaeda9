// Uses the C++ interface in the forms that a program can have: headers.sh compiles it by each
// standard, with and without exceptions. It is never run; ../unit/confsvc_hpp_test.cpp is.
#include "confsvc.hpp"

#if defined(__cpp_lib_ranges)
static_assert(std::ranges::forward_range<confsvc::nodes>);
static_assert(std::ranges::view<confsvc::nodes> && std::ranges::borrowed_range<confsvc::nodes>);
#endif

enum class duplex { automatic, half, full };
struct port {
    std::string name;
    int mtu = 1500;
    duplex mode = duplex::automatic;
    std::uint64_t limit = 0;
    bool enabled = true;
};

inline confsvc::outcome read_port(const confsvc::change &change, port &into)
{
    const auto name = change.try_key("name", "port");
    const auto now = change.try_values();
    if (!name || !now) {
        return !name ? name.why() : now.why();
    }
    const confsvc::node &settings = **now;
    const auto mtu = settings.try_number<int>("mtu", 68, 65535);
    const auto limit = settings.try_number<std::uint64_t>("limit");
    const auto mode = settings.try_choice<duplex>("duplex", {"auto", "half", "full"});
    const auto enabled = settings.try_boolean("enabled");
    if (!mtu || !limit || !mode || !enabled) {
        return confsvc::refusal(EINVAL, "a value is wrong");
    }
    into = {*name, mtu->value_or(1500), mode->value_or(duplex::automatic), limit->value_or(0),
            enabled->value_or(true)};
    return {};
}

int run_without_exceptions(port &only)
{
    confsvc::options how;
    how.join_limit = std::chrono::seconds(2);
    confsvc::plugin plugin("ports", how);
    plugin
        .on_change("/m:ports/port",
                   [&only](const confsvc::change &change) { return read_port(change, only); })
        .on_status("/m:ports-state",
                   [&only](const confsvc::query &, confsvc::output &out) {
                       confsvc::element state = out.open("port");
                       state.add("name", only.name).add("mtu", only.mtu).add("up", only.enabled);
                   })
        .on_operation("rename", [&only](const confsvc::call &call, confsvc::output &) {
            for (const confsvc::node each : call.input()) {
                for (const confsvc::node leaf : each.children("alias")) {
                    if (const auto text = leaf.try_text(); text && *text) {
                        only.name = **text;
                    }
                }
            }
        });
    plugin.on_joined([&plugin] { plugin.post([] {}); }).on_lost([](std::string_view) {});
    return plugin.try_run() ? 0 : 1;
}

#if CONFSVC_EXCEPTIONS
void run_with_exceptions(port &only)
{
    confsvc::plugin plugin("ports");
    plugin.on_change("/m:ports/port", 20, [&only](const confsvc::change &change) {
        const confsvc::elements now = change.values();
        only.name = now->at("name").as_text();
        only.mtu = now->number<int>("mtu", 68, 65535).value_or(1500);
        only.mode = now->choice<duplex>("duplex", {"auto", "half", "full"}).value_or(only.mode);
        only.enabled = now->boolean("enabled").value_or(true);
        if (!change.moved() && change.old_values()) {
            throw confsvc::refusal(EPERM, only.name + " cannot be changed");
        }
    });
    plugin.start();
    while (plugin.process()) {
        confsvc::output counted;
        counted.open("counters").declare("urn:counters").add("total", only.limit);
        confsvc::push("/m:ports-state", counted);
        confsvc::notify("counted", counted);
    }
}
#endif
