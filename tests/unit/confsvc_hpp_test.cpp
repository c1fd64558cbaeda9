// The C++ interface, against a daemon: what handlers see and what becomes of what they throw.
#include "confsvc.hpp"

#include "demo_plugin.h"

#include <algorithm>
#include <cstring>
#include <malloc.h>
#include <optional>
#include <poll.h>

using namespace test;

namespace {

bool watches = false;
std::string freed; // the beginning of each block that is given back while somebody watches

void watch_free(void *block)
{
    if (watches && block != nullptr) {
        freed.append(static_cast<const char *>(block),
                     std::min<std::size_t>(malloc_usable_size(block), 8));
    }
    std::free(block);
}

} // namespace

void *operator new[](std::size_t size)
{
    return std::malloc(size);
}

void operator delete[](void *block) noexcept
{
    watch_free(block);
}

void operator delete[](void *block, std::size_t /*size*/) noexcept
{
    watch_free(block);
}

namespace {

struct row {
    std::string request, answer;
    std::function<void(const confsvc::change &)> on_change = {};
    std::function<void(const confsvc::query &, confsvc::output &)> on_status = {};
    std::function<confsvc::outcome(const confsvc::call &, confsvc::output &)> on_operation = {};
};

class Cpp : public PluginFixture {
protected:
    // A plugin whose three handlers are those of the present row.
    void make()
    {
        plugin.emplace("demo");
        plugin
            ->on_change("/demo/settings",
                        [this](const confsvc::change &change) { now.on_change(change); })
            .on_status("/demo/state", [this](const confsvc::query &query,
                                             confsvc::output &out) { now.on_status(query, out); })
            .on_operation("reset", [this](const confsvc::call &call, confsvc::output &out) {
                return now.on_operation(call, out);
            });
    }

    void join()
    {
        daemon.forget_connection();
        daemon.play([](Peer &connection) {
            connection.answer("<result/>");
            connection.answer("<result/>");
        });
        plugin->start();
        do {
            pollfd fd = {plugin->fd(), POLLIN, 0};
            EXPECT_EQ(poll(&fd, 1, -1), 1);
            EXPECT_TRUE(plugin->process());
        } while (!plugin->reason().empty());
        peer = &daemon.finish();
    }

    // What comes back for a request; the plugin's own requests are answered with `content`.
    std::string handle(const std::string &request, int own = 0, const std::string &content = {})
    {
        asked.clear();
        peer->send(framed(request));
        daemon.play([&, own](Peer &connection) {
            for (int i = 0; i < own; ++i) {
                asked += connection.answer(content);
            }
            replied = connection.receive();
        });
        EXPECT_TRUE(plugin->process());
        daemon.finish();
        return replied;
    }

    void check(const std::vector<row> &rows)
    {
        for (const row &row : rows) {
            SCOPED_TRACE(::testing::Message() << &row - rows.data() << ": " << row.request);
            now = row;
            EXPECT_EQ(handle(row.request), row.answer);
        }
    }

    row now;
    std::optional<confsvc::plugin> plugin;
    std::string asked, replied;
};

std::string flags_of(const confsvc::change &change)
{
    const std::pair<bool, const char *> flags[] = {
        {change.added(), "added "},       {change.removed(), "removed "},
        {change.modified(), "modified "}, {change.moved(), "moved "},
        {change.rollback(), "rollback "}, {change.replay(), "replay "},
        {change.more(), "more "},
    };
    std::string text;
    for (const auto &[is_set, name] : flags) {
        text += is_set ? name : "";
    }
    return text;
}

TEST_F(Cpp, Changes)
{
    make();
    join();
    for (const auto &[oper, flags] : {std::pair{"1", "added "},
                                      {"2", "removed "},
                                      {"20", "modified moved "},
                                      {"32770", "removed rollback "},
                                      {"16385", "added replay "},
                                      {"65537", "added replay "}}) {
        std::string seen;
        now.on_change = [&](const confsvc::change &change) {
            seen = flags_of(change) + change.path() + ' ' + change.key("name") + ' ' +
                   numbers(change.session(), change.priority(), change.operation());
        };
        EXPECT_EQ(handle(config("/a/b[name=\"x,y\"]/c", oper)), succeeded());
        EXPECT_EQ(seen, flags + std::string("/a/b[name=\"x,y\"]/c x,y 3 10 ") + oper + ' ');
    }

    // What is to be in force comes from the old configuration when a change is taken back.
    for (const bool back : {false, true}) {
        now.on_change = [&](const confsvc::change &change) {
            for (const auto &list : {change.values(), change.old_values()}) {
                EXPECT_EQ(list->number<int>("mtu", 68, 65535), 1500);
                EXPECT_EQ(list->name(), "e");
                for (const confsvc::node each : list) {
                    EXPECT_EQ(each.children("dns").empty(), each.name() == "f");
                }
            }
            EXPECT_EQ(confsvc::locate(change.path()).next, "");
        };
        EXPECT_EQ(handle(config("/a", back ? "32772" : "4"), 3,
                         "<result><data><e><mtu>1500</mtu><dns>1</dns></e><f/></data></result>"),
                  succeeded());
        const std::size_t first = asked.find("<old/>"), other = asked.find("</rpc>");
        EXPECT_TRUE(first != std::string::npos && (first < other) == back) << asked;
    }
    // Nothing there is no failure.
    now.on_change = [](const confsvc::change &change) {
        const auto none = change.values();
        EXPECT_TRUE(!none && !none->text("x") && none.begin() == none.end());
    };
    EXPECT_EQ(handle(config("/a"), 1, "<result/>"), succeeded());
}

TEST_F(Cpp, ErrorsBecomeReplies)
{
    make();
    join();
    const auto throws = [](const auto &what) { return [=](const auto &...) { throw what; }; };
    const std::string change = config("/a[k=1]"), state = subscribe(""),
                      reset = operate("<n>x</n>");
    const std::string range = "n is not a whole number from 1 to 9";
    check({
        {change, failed("22", "no &lt; yes %s"), throws(confsvc::refusal(22, "no < yes %s"))},
        {change, failed("-1", "zero"), throws(confsvc::refusal(0, "zero"))},
        {change, failed("-1", "wrong"), throws(std::runtime_error("wrong"))},
        {change, failed("12", "no memory for the request"), throws(std::bad_alloc())},
        {change, failed("-1", "the handler failed"), throws(7)},
        {change, failed("22", "/a[k=1] has no key name"),
         [](const confsvc::change &of) { (void)of.key("name"); }},
        {state,
         failed("5", "late"),
         {},
         [](const auto &, confsvc::output &out) {
             out.add("half", 1);
             throw confsvc::error(5, "late");
         }},
        {state,
         failed("12", "no memory for the answer"),
         {},
         [](const auto &, confsvc::output &out) { out.add(nullptr, 1); }},
        {reset,
         failed("22", range),
         {},
         {},
         [](const confsvc::call &call, auto &) {
             (void)call.number<int>("n", 1, 9);
             return confsvc::outcome();
         }},
        {reset,
         failed("22", range),
         {},
         {},
         [](const confsvc::call &call, auto &) {
             const auto number = call.try_number<unsigned char>("n", 1, 9);
             return number ? confsvc::outcome() : number.why();
         }},
        {reset,
         failed("22", "n is none of a, b"),
         {},
         {},
         [](const confsvc::call &call, auto &) {
             (void)call.choice("n", {"a", "b"});
             return confsvc::outcome();
         }},
        {reset,
         failed("22", "m is missing"),
         {},
         {},
         [](const confsvc::call &call, auto &) {
             (void)call.at("m");
             return confsvc::outcome();
         }},
        {reset,
         failed("7", "returned"),
         {},
         {},
         [](const auto &, auto &) { return confsvc::refusal(7, "returned"); }},
    });
    EXPECT_EQ(take_system_log(), strings{});
}

TEST_F(Cpp, Output)
{
    make();
    join();
    check({
        {subscribe("<path>/p</path><filter>f</filter>"),
         succeeded("<result><path>/p</path><data><s xmlns=\"urn:s\"><t>a&lt;&amp;b</t><u>-1</u>"
                   "<v>18446744073709551615</v><w>true</w><x/></s><pw>top</pw></data></result>"),
         {},
         [](const confsvc::query &query, confsvc::output &out) {
             EXPECT_EQ(query.path() + std::string(query.filter().value_or("")), "/pf");
             out.open("s")
                 .declare("urn:s")
                 .add("t", "a<&b")
                 .add("u", -1)
                 .add("v", ~0ULL)
                 .add("w", true)
                 .add("x", std::string());
             out.add("pw", confsvc::secret("top"));
         }},
        {subscribe(""),
         succeeded("<result><path/><data/></result>"),
         {},
         [](const auto &, auto &) {}},
        {operate("<a><b>1</b></a><c>full</c><d>false</d>"),
         succeeded("<result><b>1</b><c>2</c></result>"),
         {},
         {},
         [](const confsvc::call &call, confsvc::output &out) {
             out.add("b", call.at("a").at("b").as_number<long>());
             out.add("c", *call.choice("c", {"auto", "half", "full"}));
             EXPECT_EQ(call.boolean("d"), false);
             EXPECT_EQ(call.at("c").as_choice({"full"}), 0);
             EXPECT_EQ(call.text("e").value_or("-"), "-");
             EXPECT_THROW((void)confsvc::node().as_text(), confsvc::refusal);
             return confsvc::outcome();
         }},
    });
}

// What it has captured lives on while it runs.
TEST_F(Cpp, HandlerMayDestroyThePlugin)
{
    const auto captured = std::make_shared<int>(7);
    for (const bool throws : {false, true}) {
        plugin.emplace("demo");
        plugin->on_change("/a", [this, throws, captured](const confsvc::change &) {
            plugin.reset();
            EXPECT_EQ(*captured, 7);
            if (throws) {
                throw confsvc::refusal(5, "too late");
            }
        });
        EXPECT_EQ(captured.use_count(), 2);
        join();
        peer->send(framed(config("/a")));
        EXPECT_FALSE(plugin->process());
        EXPECT_EQ(captured.use_count(), 1);
        EXPECT_EQ(peer->received(), strings{});
    }
    // Another one in its place is not given the error.
    make();
    now.on_change = [this](const confsvc::change &) {
        make();
        plugin->start();
        throw confsvc::refusal(5, "of the one before");
    };
    join();
    peer->send(framed(config("/a")));
    EXPECT_FALSE(plugin->process());
    now.on_change = [](const confsvc::change &) {};
    join();
    EXPECT_EQ(handle(config("/a")), succeeded());
}

TEST_F(Cpp, ComesAndGoes)
{
    std::string story;
    make();
    const auto tells = [&story](const char *what) {
        return [&story, what](auto... reason) {
            ((story += reason), ..., (story += what));
            throw std::runtime_error(what);
        };
    };
    plugin->on_joined(tells(" joined "))
        .on_lost(tells(" lost "))
        .on_kicked_off(tells(" kicked off "))
        .on_failure([&](std::string_view where, std::string_view what) {
            story.append(where).append(what);
        });
    EXPECT_FALSE(plugin->try_process()) << "before the start";
    EXPECT_FALSE(plugin->post([] {}));
    EXPECT_EQ(plugin->fd(), -1);
    join();
    confsvc::plugin second("demo2");
    EXPECT_STREQ(second.try_start().why().what(),
                 "demo2 cannot be supervised; the debug file says why");

    std::jthread([&] {
        EXPECT_TRUE(plugin->post([&] { story += "posted "; }));
        EXPECT_TRUE(plugin->post([&] {
            plugin->on_change("/too/late", [](const confsvc::change &) {});
            throw 1;
        }));
    }).join();
    EXPECT_TRUE(plugin->process());
    EXPECT_EQ(plugin->reason(), "");
    EXPECT_EQ(story, " joined joined joined posted posted workan exception of an unknown kind");

    story.clear();
    daemon.forget_connection();
    EXPECT_TRUE(plugin->process());
    EXPECT_EQ(story, plugin->reason() + " lost lost lost ");
    EXPECT_NE(plugin->reason(), "");

    story.clear();
    join();
    plugin->on_failure(nullptr);
    peer->send(framed(kick_off));
    EXPECT_FALSE(plugin->process());
    EXPECT_EQ(story, " joined joined joined  kicked off ");
    EXPECT_EQ(take_system_log(), strings{"<11>[ERROR]plugin demo: kicked_off:  kicked off \n"});
    plugin->run(); // ends at once
    plugin->stop();
}

TEST_F(Cpp, HasALimitOfHandlers)
{
    plugin.emplace("demo");
    for (int i = 0; i < CONFSVC_MOST_HANDLERS; ++i) {
        plugin->on_change("/a", [](const confsvc::change &) {});
    }
    std::string seen;
    plugin->on_status("/b", [&](const confsvc::query &, auto &) { seen = "the status"; });
    join();
    handle(subscribe("", std::to_string(CONFSVC_MOST_HANDLERS + 1)));
    EXPECT_EQ(seen, "the status");

    confsvc::plugin crowded("crowd");
    for (int i = 0; i <= CONFSVC_MOST_HANDLERS; ++i) {
        crowded.on_operation("a", [](const confsvc::call &, auto &) {});
    }
    EXPECT_THROW(crowded.start(), confsvc::error);
}

TEST_F(Cpp, OwnersWipe)
{
    xmlFreeFunc plain = nullptr;
    xmlMallocFunc allocate = nullptr;
    xmlReallocFunc enlarge = nullptr;
    xmlStrdupFunc copy_of = nullptr;
    xmlMemGet(&plain, &allocate, &enlarge, &copy_of);
    xmlNode *const given[] = {parse("<a b='s3cret'>s3cret</a>"), parse("<b>s3cret</b>")};
    watches = true;
    xmlMemSetup(watch_free, allocate, enlarge, copy_of);
    freed.clear();
    {
        const confsvc::secret seen("s3cret");
        confsvc::secret copy = seen, moved = std::move(copy);
        EXPECT_TRUE(copy.empty()); // NOLINT(bugprone-use-after-move)
        copy = confsvc::secret("s3cret-2");
        EXPECT_TRUE(moved == seen && copy != seen);
        confsvc::elements list(given[0]);
        confsvc::elements taken = std::move(list);
        EXPECT_TRUE(!list && taken->as_text() == "s3cret"); // NOLINT(bugprone-use-after-move)
        list = confsvc::elements(given[1]);
        EXPECT_EQ(list->name(), "b");
        confsvc::output out;
        out.add("password", seen).open("x").add("y", "s3cret");
    }
    EXPECT_EQ(freed.find("s3cret"), std::string::npos);
    operator delete[](std::strcpy(static_cast<char *>(operator new[](7)), "s3cret"));
    EXPECT_NE(freed.find("s3cret"), std::string::npos) << "the test sees nothing";
    watches = false;
    xmlMemSetup(plain, allocate, enlarge, copy_of);
}

} // namespace
