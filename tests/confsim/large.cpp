// Configurations with long lists: what stands in the index and in shared versions is what a tree
// says that was read anew, and one change of many entries takes about the time of one of few.
#include "failure.h"
#include "service/commit.h"
#include "test_support.h"

#include <chrono>
#include <fstream>
#include <limits>
#include <map>
#include <random>

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

} // namespace
