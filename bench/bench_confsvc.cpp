// The library's message path. The small round trip is econf_plugin_save_deployment(), the request
// with the fewest parts that a plugin can make. Built twice: with BENCH_SUPERVISED the plugin has a
// supervisor. That is a program of its own, for --before may name a library without one.
#include "conf_supervisor.h"
#include "harness.h"

#include <limits>
#include <malloc.h>

namespace {

#ifdef BENCH_SUPERVISED
constexpr const char *contender = "confsvc+supervisor";
#else
constexpr const char *contender = "confsvc";
#endif

bench::progress *operations = nullptr;

int on_operation(int /*session*/, xmlNode * /*input*/, xmlNode ** /*output*/)
{
    if (operations == nullptr) { // still joining
        return 0;
    }
    operations->one_handled(true);
    if (!operations->going()) {
        econf_plugin_close();
    }
    return 0;
}

// A plugin that is active, for one benchmark; `work` is what its daemon does from then on.
class plugin {
public:
    template <typename function>
    explicit plugin(function work)
    {
        const int listener = conf_plugin_service_enable();
        bench::in_background([&] {
            const int sock = bench::accept_plugin(listener);
            if (bench::answer(sock, "") && bench::answer(sock, "")) { // to register and activate
                work(sock);
            }
        });
        (void)close(listener);
        char path[] = "/demo:reset";
        econf_operate_cb_info_t callback[] = {{path, on_operation}, {nullptr, nullptr}};
        econf_plugin_subpub_info_t callbacks{nullptr, nullptr, callback, nullptr};
        if (!join(callbacks)) {
            bench::give_up("plugin");
        }
    }
    plugin(const plugin &) = delete;
    plugin &operator=(const plugin &) = delete;

#ifdef BENCH_SUPERVISED
    ~plugin()
    {
        econf_supervisor_destroy(supervisor_);
    }
    [[nodiscard]] int fd() const
    {
        return econf_supervisor_fd(supervisor_);
    }
    void handle() const
    {
        (void)econf_supervisor_process(supervisor_);
    }

private:
    bool join(econf_plugin_subpub_info_t &callbacks)
    {
        supervisor_ = econf_supervisor_create("bench", &callbacks, nullptr);
        handle();
        return *econf_supervisor_reason(supervisor_) == '\0';
    }
    econf_supervisor_t *supervisor_ = nullptr;
#else
    ~plugin()
    {
        econf_plugin_close();
    }
    [[nodiscard]] static int fd()
    {
        return conf_plg_get_hconf(nullptr);
    }
    static void handle()
    {
        econf_plugin_run();
    }

private:
    static bool join(econf_plugin_subpub_info_t &callbacks)
    {
        return econf_plugin_init("bench", &callbacks) >= 0 &&
               econf_plugin_activate(ACTIVATE_WITH_NONE) == 0;
    }
#endif
};

void round_trip(benchmark::State &state)
{
    const plugin active(bench::serve);
    bench::repeat(state, [] { return econf_plugin_save_deployment() == 0; });
}

// As a host program does: waits until the socket is readable, then lets the library handle all.
void pushed(benchmark::State &state, int depth)
{
    operations = nullptr;
    const plugin active([=](int sock) { bench::push(sock, depth); });
    pollfd input{active.fd(), POLLIN, 0};
    bench::progress handled(state, depth);
    operations = &handled;
    while (handled.going()) {
        if (poll(&input, 1, -1) != 1 || input.revents != POLLIN) {
            handled.fail();
        }
        active.handle();
    }
}

bool pull(const std::string &path)
{
    xmlNode *list = nullptr;
    const bool good = econf_plugin_pull(0, path.c_str(), &list) == 0 && list != nullptr;
    xmlFreeNodeList(list);
    return good;
}

void pulled(benchmark::State &state, std::size_t size)
{
    const plugin active(bench::serve);
    const std::string path = '/' + std::to_string(size);
    bench::repeat(state, [&] { return pull(path); });
}

// The time for each byte of a big reply should not depend on its size. What the C library does with
// memory is told apart: "new" memory comes from the kernel, page by page, as in a process that has
// just begun; "kept" memory was used before and freed. The C library must not choose for itself
// when to give memory back, for that depends on what it has seen before.
void growth(benchmark::State &state, std::size_t size, bool kept)
{
    (void)mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    (void)mallopt(M_MMAP_THRESHOLD, 32 << 20);
    const plugin active(bench::serve);
    const std::string path = '/' + std::to_string(size);
    bool good = pull(path);
    while (state.KeepRunning()) {
        state.PauseTiming();
        if (kept) {
            void *volatile block = std::malloc(4096); // makes the C library merge what is free
            std::free(block);
        } else {
            (void)malloc_trim(0);
        }
        state.ResumeTiming();
        good = pull(path) && good;
    }
    if (!good) {
        state.SkipWithError("failed");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(size) * state.iterations());
}

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    bench::add(bench::name_of("round_trip", contender), round_trip);
    for (const int depth : {1, bench::depth}) {
        bench::add(bench::name_of("pushed", contender, static_cast<std::size_t>(depth)),
                   [=](benchmark::State &state) { pushed(state, depth); });
    }
    for (const std::size_t size : bench::pull_sizes) {
        bench::add(bench::name_of("pull", contender, size),
                   [=](benchmark::State &state) { pulled(state, size); });
    }
    for (const std::size_t size : {1U << 20, 16U << 20, 64U << 20}) {
        for (const bool kept : {false, true}) { // last, for they leave the C library changed
            bench::add(bench::name_of("pull",
                                      (contender + std::string(kept ? "-kept" : "-new")).c_str(),
                                      size),
                       [=](benchmark::State &state) { growth(state, size, kept); });
        }
    }
    return bench::run(count, arguments);
}
