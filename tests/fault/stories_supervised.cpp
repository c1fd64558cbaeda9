// Stories of a supervised plugin: it joins, serves, is left by its daemon and joins again, or finds
// none.
#include "both_interfaces.h"
#include "conf_supervisor.h"
#include "lane.h"

#include <poll.h>

namespace fault {

namespace {

econf_supervisor_t *s = nullptr;
char *const path = test::path_of_changes;

// A pull, during which the daemon asks for the status.
void read_all()
{
    xmlNode *list = nullptr;
    ask(test::subscribe("<path>/state</path>"));
    const int result = econf_plugin_pull(0, path, &list);
    const outside library;
    note("pull", result);
    note("list", list);
    xmlFreeNodeList(list);
}

void create()
{
    // Pauses that chance has no part in.
    const econf_supervisor_options_t options = {ACTIVATE_WITH_NONE,
                                                0,
                                                0,
                                                1,
                                                1,
                                                [](void *) { read_all(); },
                                                [](void *, const char *why) { note("lost", why); },
                                                nullptr};
    s = step("create",
             [&] { return econf_supervisor_create("demo", test::callbacks(), &options); });
}

// Handles what is announced within a moment. A pause between attempts is over by then.
void turn(const char *name)
{
    (void)poll(nullptr, 0, 2);
    pollfd input = {econf_supervisor_fd(s), POLLIN, 0};
    (void)poll(&input, 1, 20);
    step(name, [] { return econf_supervisor_process(s); });
    note("replies", take_replies());
    step("reason", [] { return econf_supervisor_reason(s); });
}

void work(void *)
{
    note("posted", "done");
}

} // namespace

const story supervised("supervised", about::supervisor, [] {
    create();
    note("descriptor", econf_supervisor_fd(s) < 0 ? -1 : 0);
    turn("join");
    turn("serve what was kept");
    step("post", [] { return econf_supervisor_post(s, work, nullptr); });
    turn("do posted work");
    hang_up();
    turn("lose");
    turn("join again");
    step("stop", [] { econf_supervisor_stop(s); });
    step("run", [] { return econf_supervisor_run(s); });
    step("destroy", [] { econf_supervisor_destroy(s); });
});

const story no_daemon("no_daemon", about::calls, [] {
    create();
    turn("try");
    turn("try again");
    step("destroy", [] { econf_supervisor_destroy(s); });
});

} // namespace fault
