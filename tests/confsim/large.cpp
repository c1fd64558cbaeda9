// Configurations with long lists: what stands in the index and in shared versions is what a tree
// says that was read anew, and one change of many entries takes about the time of one of few.
#include "failure.h"
#include "service/commit.h"
#include "test_support.h"

#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <set>

using namespace confsim;

namespace {

std::vector<std::string> as_texts(const node &before, const node &after)
{
    std::vector<std::string> texts;
    for (const difference &each : differences(before, after)) {
        texts.push_back(to_text(each));
    }
    return texts;
}

std::string neighbours_of(const node &top, const path &where)
{
    try {
        const neighbours found = find_neighbours(top, where);
        return (found.previous ? to_text(*found.previous) : "none") + ' ' +
               (found.next ? to_text(*found.next) : "none");
    } catch (const failure &reason) {
        return reason.what();
    }
}

// A list of entries that are told by a usual key, by another one, by position, or by their text,
// and a second one in between; the numbers are few enough to come again.
std::string random_path(std::mt19937 &random)
{
    const auto number = [&random] { return std::to_string(random() % 60); };
    const auto quoted = [&number] { return "=\"" + number() + "\"]"; };
    const std::string list = random() % 4 == 0 ? "/a:top/b:other" : "/a:top/list";
    switch (random() % 12) {
    case 0:
        return list + "[." + quoted();
    case 1:
        return list + "[prefix" + quoted() + "/deeper/leaf";
    case 2:
        return list + "[leaf" + quoted();
    case 3:
        return list + "[" + number() + "]/box/leaf";
    case 4:
        return list + "[name" + quoted() + "/prefix";
    case 5:
        return list + "[name" + quoted();
    default:
        return list + "[name" + quoted() + "/leaf";
    }
}

TEST(Large, VersionsAreWhatIsReadAnew)
{
    std::mt19937 random(7);
    module_table modules;
    const auto anew = [&modules](const node &tree) {
        const xml::node_ptr element = to_xml(tree, modules);
        node made = from_xml(element.get(), "", modules);
        made.module = tree.module;
        return made;
    };
    node top{"", "config", "", {}};
    node former = top;
    for (int round = 0; round < 1500; ++round) {
        const path where = parse_path(random_path(random));
        try {
            if (random() % 3 == 0) {
                const std::size_t count = find(top, where).size();
                EXPECT_EQ(remove(top, where), count) << to_text(where);
            } else {
                set(top, where, std::nullopt);
            }
        } catch (const failure &) { // of some list entry
        }
        if (round % 10 == 0) {
            const node read = anew(top);
            const node former_read = anew(former);
            refuse_unreadable(read, {});
            EXPECT_EQ(size_of(read), size_of(top));
            EXPECT_EQ(as_texts(top, read), std::vector<std::string>());
            ASSERT_EQ(as_texts(former, top), as_texts(former_read, read)) << round;
            for (int i = 0; i < 5; ++i) {
                const path other = parse_path(random_path(random));
                EXPECT_EQ(find(top, other).size(), find(read, other).size()) << to_text(other);
                EXPECT_EQ(neighbours_of(top, other), neighbours_of(read, other));
            }
            former = top;
        }
    }
    EXPECT_GT(find(top, parse_path("/a:top/list")).size(), 32U); // or the index was never made
}

struct numbers {
    struct summary {
        summary() = default;
        explicit summary(int item) : greatest(item) {}
        summary &operator+=(const summary &more)
        {
            greatest = std::max(greatest, more.greatest);
            return *this;
        }
        int greatest = -1;
    };
    static std::strong_ordering compare(int item, int probe) { return item <=> probe; }
};

using number_set = shared_set<int, numbers>;

void expect_same(const number_set &made, const std::set<int> &known, int probe)
{
    const auto as_known = [&](std::set<int>::const_iterator at) {
        return at == known.end() ? std::optional<int>() : std::optional(*at);
    };
    const auto before = [&](std::set<int>::const_iterator at) {
        return at == known.begin() ? std::optional<int>() : std::optional(*std::prev(at));
    };
    const auto value = [](const int *item) {
        return item == nullptr ? std::optional<int>() : std::optional(*item);
    };
    const auto from = known.lower_bound(probe);
    const auto after = known.upper_bound(probe);
    EXPECT_EQ(made.size(), known.size());
    EXPECT_EQ(value(made.first_from(probe)), as_known(from));
    EXPECT_EQ(value(made.first_after(probe)), as_known(after));
    EXPECT_EQ(value(made.last_before(probe)), before(from));
    EXPECT_EQ(value(made.last_up_to(probe)), before(after));
    EXPECT_EQ(value(made.back()), before(known.end()));
    EXPECT_EQ(made.count_before(probe), std::distance(known.begin(), from));
    EXPECT_EQ(made.total().greatest, known.empty() ? -1 : *known.rbegin());
    EXPECT_EQ(value(made.first_with([&](numbers::summary all) { return all.greatest >= probe; })),
              as_known(from));
}

// Filled from one end or at random, and emptied likewise; each version stays what it was.
TEST(Large, SharedSetsHoldWhatSetsHold)
{
    std::mt19937 random(11);
    const auto any = [&random](std::size_t below) { return static_cast<int>(random() % below); };
    for (const std::string order : {"ascending", "descending", "random"}) {
        number_set made;
        std::set<int> known;
        number_set former;
        std::set<int> former_known;
        for (int step = 0; step < 6000; ++step) {
            const bool fills = step < 3000;
            const int item = order == "random"      ? any(fills ? 4000 : 5000)
                             : order == "ascending" ? step % 3000
                                                    : 2999 - step % 3000;
            fills ? made.put(item) : made.erase(item);
            fills ? (void)known.insert(item) : (void)known.erase(item);
            if (step % 97 == 0) {
                expect_same(made, known, any(5000));
                EXPECT_TRUE(std::equal(made.begin(), made.end(), known.begin(), known.end()));
                EXPECT_TRUE(std::equal(former.begin(), former.end(), former_known.begin(),
                                       former_known.end()));
                std::vector<int> changed;
                number_set::compare(former, made, [&](const int *was, const int *is) {
                    EXPECT_NE(was == nullptr, is == nullptr) << order; // numbers do not change
                    changed.push_back(was != nullptr ? *was : *is);
                });
                std::vector<int> wanted;
                std::set_symmetric_difference(known.begin(), known.end(), former_known.begin(),
                                              former_known.end(), std::back_inserter(wanted));
                ASSERT_EQ(changed, wanted) << order << ' ' << step;
                former = made;
                former_known = known;
            }
        }
    }
}

// A running configuration of so many entries, and what is done to it.
class workshop {
public:
    explicit workshop(std::size_t size) : size_(size)
    {
        const std::string file = "/var/tmp/" + std::to_string(size) + ".xml";
        std::ofstream text(file);
        text << "<system xmlns='urn:test'><log><value>1</value></log>";
        for (std::size_t i = 0; i < size; ++i) {
            text << "<user><name>" << i << "</name><value>1</value></user>";
        }
        text << "</system>";
        text.close();
        config_.begin_with(file);
    }

    // The shortest time of one call of each work, in microseconds.
    std::map<std::string, double> measure()
    {
        std::map<std::string, double> shortest;
        for (int repeat = 0; repeat < 7; ++repeat) {
            time(shortest["set"], [this] { config_.set(leaf_of_another(), "2"); });
            time(shortest["delete"], [this] { config_.remove(above(leaf_of_another())); });
            config_.discard();
            time(shortest["locate"], [this] {
                EXPECT_TRUE(find_neighbours(config_.running(), above(leaf_of_another())).next);
            });
            time(shortest["pull"], [this] {
                const std::vector<const node *> found =
                    find(config_.running(), above(leaf_of_another()));
                EXPECT_NE(config_.as_xml(*found.at(0)), nullptr);
            });
            time(shortest["set and diff"], [this] {
                config_.set(leaf_of_another(), std::to_string(++value_));
                EXPECT_EQ(differences(config_.running(), config_.candidate()).size(), 1U);
                config_.discard();
            });
            time(shortest["set and commit"], [this] {
                config_.set(leaf_of_another(), std::to_string(++value_));
                commit(service_, config_, {});
            });
        }
        return shortest;
    }

private:
    template <typename Work>
    static void time(double &shortest, Work work)
    {
        constexpr int times = 40;
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < times; ++i) {
            work();
        }
        const std::chrono::duration<double, std::micro> taken =
            std::chrono::steady_clock::now() - begin;
        shortest =
            shortest == 0 ? taken.count() / times : std::min(shortest, taken.count() / times);
    }
    path leaf_of_another()
    {
        at_ = (at_ + 379) % (size_ - 1); // nowhere near the last one, and never the very last
        return parse_path("/test:system/user[name=\"" + std::to_string(at_) + "\"]/value");
    }
    static path above(path where)
    {
        where.pop_back();
        return where;
    }

    std::size_t size_;
    std::size_t at_ = 0;
    int value_ = 1;
    console out_;
    event_loop loop_;
    tracer trace_{out_};
    endpoints where_{"/var/tmp/large"};
    configuration config_{""};
    conf_daemon service_{loop_, out_, trace_, config_, where_, seconds(60)};
};

TEST(Large, OneChangeAmongManyTakesLittleMore)
{
    const std::map<std::string, double> few = workshop(1000).measure();
    std::map<std::string, double> many = workshop(100000).measure();
    for (const auto &[work, time] : few) {
        std::cout << work << ": " << time << " us among 1000, " << many[work]
                  << " us among 100000\n";
        EXPECT_LE(many[work], 20 * time) << work; // a walk through all takes 100 times as long
    }
}

// So many plugins with ten subscriptions each, which come and go.
class crowd {
public:
    explicit crowd(std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i) {
            plugins_.push_back(
                std::make_shared<plugin>(open("/dev/null", O_RDONLY), trace_, loop_, seconds(1)));
            plugins_.back()->serial = i;
            for (int j = 0; j < 10; ++j) {
                plugins_.back()->configs.push_back({path_of(i, std::to_string(j)), 0, j});
            }
            index_.add(plugins_.back());
        }
    }

    // The shortest time of a change that concerns one of them.
    double measure()
    {
        double shortest = 0;
        for (int repeat = 0; repeat < 200; ++repeat) {
            const std::size_t whom = random_() % plugins_.size();
            node before{"", "config", "", {}};
            set(before, path_of(whom, "3"), "1");
            node after = before;
            set(after, path_of(whom, "3"), "2");
            set(after, path_of(whom, "10"), "1"); // of nobody
            const std::vector<difference> changes = differences(before, after);
            const auto begin = std::chrono::steady_clock::now();
            const std::vector<publication> found = index_.publications(changes);
            const std::vector<std::string> unheard = index_.unsubscribed(changes);
            const std::chrono::duration<double, std::micro> taken =
                std::chrono::steady_clock::now() - begin;
            shortest = shortest == 0 ? taken.count() : std::min(shortest, taken.count());
            EXPECT_EQ(unheard, std::vector<std::string>{to_text(path_of(whom, "10"))});
            EXPECT_TRUE(found.size() == 1 && found[0].to == plugins_[whom] && found[0].index == 3);
            index_.remove(plugins_[whom]);
            EXPECT_TRUE(index_.publications(changes).empty());
            index_.add(plugins_[whom]);
        }
        return shortest;
    }

private:
    static path path_of(std::size_t plugin, const std::string &leaf)
    {
        return parse_path("/test:system/p" + std::to_string(plugin) + "/leaf" + leaf);
    }

    console out_;
    event_loop loop_;
    tracer trace_{out_};
    std::mt19937 random_{5};
    std::vector<plugin_ptr> plugins_;
    subscription_index index_;
};

TEST(Large, OneChangeAmongManyPluginsTakesLittleMore)
{
    const double few = crowd(10).measure();
    const double many = crowd(1000).measure();
    std::cout << few << " us among 10 plugins, " << many << " us among 1000\n";
    EXPECT_LE(many, 20 * few); // a walk through all takes 100 times as long
}

} // namespace
