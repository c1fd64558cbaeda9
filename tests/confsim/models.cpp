// Configurations of modules that nobody here wrote, made at random so that they are valid: what is
// set is committed, stored, read back equal, and undone.
//
// The environment can name the number of rounds (CONFSIM_ROUNDS) and the seed (CONFSIM_SEED).
#include "failure.h"
#include "model/model.h"
#include "model/modules.h"
#include "random_data.h"
#include "service/commit.h"
#include "test_support.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

using namespace confsim;

namespace {

namespace fs = std::filesystem;
using yang::data_ptr;

long number_from(const char *name, long otherwise)
{
    const char *given = std::getenv(name);
    return given == nullptr ? otherwise : std::strtol(given, nullptr, 10);
}

// Sets each node that a configuration tells of.
std::size_t set_all(configuration &config, const lyd_node *first)
{
    std::size_t count = 0;
    for (const lyd_node *each = first; each != nullptr; each = each->next) {
        if ((each->flags & LYD_DEFAULT) != 0 || lysc_is_key(each->schema)) {
            continue;
        }
        const bool is_leaf = each->schema->nodetype == LYS_LEAF;
        const bool says_something =
            (each->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0 ||
            (each->schema->nodetype == LYS_CONTAINER && (each->schema->flags & LYS_PRESENCE) != 0);
        if (is_leaf || says_something) {
            const std::string value = is_leaf ? lyd_get_value(each) : "";
            config.set(parse_path(generator::path_of(each)),
                       is_leaf ? std::optional(value) : std::nullopt);
            ++count;
        }
        count += set_all(config, lyd_child(each));
    }
    return count;
}

class round_trip {
public:
    explicit round_trip(const model_sources &from)
        : modules_(yang::load_modules(from)), known_(read_model(from)), store_(fresh_store()),
          config_(store_, known_.get())
    {
    }

    // Returns the number of nodes that were set; none when no valid configuration was found.
    std::size_t play(std::mt19937 &random)
    {
        const data_ptr first = generator(modules_.context.get(), random).make();
        const data_ptr second = generator(modules_.context.get(), random).make();
        std::size_t count = 0;
        if (first == nullptr || second == nullptr || (count = put_in_force(first.get())) == 0) {
            return 0;
        }
        expect_same_verdict(first.get(), random);
        const node former = config_.running();
        for (const node &each : former.children) {
            config_.remove({{each.module, each.name, {}}});
        }
        count += put_in_force(second.get());
        config_.load(store_ + "/old.xml");
        commit(service_, config_, {});
        expect_same(former, config_.running(), "not undone");
        return count;
    }

private:
    static void expect_same(const node &wanted, const node &seen, const std::string &otherwise)
    {
        for (const difference &each : differences(wanted, seen)) {
            ADD_FAILURE() << otherwise << ": " << to_text(each);
        }
    }

    std::size_t put_in_force(const lyd_node *wanted)
    {
        const std::size_t count = set_all(config_, wanted);
        commit(service_, config_, {});
        const data_ptr seen = read_by(modules_.context.get(), config_.as_text(config_.running()));
        EXPECT_EQ(as_text(wanted), as_text(seen.get()));
        const std::string copy = store_ + ".copy";
        fs::remove_all(copy);
        fs::copy(store_, copy, fs::copy_options::recursive);
        expect_same(config_.running(), configuration(copy, known_.get()).running(),
                    "not read back");
        return count;
    }

    // Whatever goes, the whole is as valid as what is looked at again.
    void expect_same_verdict(lyd_node *in_force, std::mt19937 &random)
    {
        std::vector<std::string> paths;
        lyd_node *top = nullptr;
        LY_LIST_FOR(in_force, top)
        {
            lyd_node *each = nullptr;
            LYD_TREE_DFS_BEGIN(top, each)
            {
                paths.push_back(generator::path_of(each));
                LYD_TREE_DFS_END(top, each);
            }
        }
        for (int i = 0; i < 5; ++i) {
            const std::string &chosen = paths[random() % paths.size()];
            try {
                config_.remove(parse_path(chosen));
            } catch (const failure &) {
                continue; // a key, or there only by default
            }
            const std::string whole =
                verdict([this] { known_->validate(config_.as_text(config_.candidate())); });
            EXPECT_EQ(verdict([this] { config_.validate(); }).empty(), whole.empty())
                << "without " << chosen << ": " << whole;
            config_.discard();
        }
    }

    template <typename Check>
    static std::string verdict(Check check)
    {
        try {
            check();
            return "";
        } catch (const failure &reason) {
            return reason.what();
        }
    }

    static std::string fresh_store()
    {
        static int number = 0;
        return "/var/tmp/store" + std::to_string(++number);
    }

    yang::loaded_modules modules_;
    std::unique_ptr<model> known_;
    std::string store_;
    console out_;
    event_loop loop_;
    tracer trace_{out_};
    endpoints where_{"/var/tmp/models"};
    configuration config_;
    conf_daemon service_{loop_, out_, trace_, config_, where_, seconds(60)};
};

TEST(Models, ConfigurationsOfOthersGoThereAndBack)
{
    // The modules that come with libyang have types, and nothing that is configured.
    const fs::path of_libyang = "/usr/share/yang/modules/libyang";
    model_sources all;
    std::vector<std::string> files;
    for (const char *top : {"/usr/share/yang", "/usr/share/yuma"}) {
        if (!fs::exists(top)) {
            continue;
        }
        for (const auto &each : fs::recursive_directory_iterator(top)) {
            if (each.is_directory()) {
                all.directories.push_back(each.path());
            } else if (each.path().extension() == ".yang" &&
                       each.path().parent_path() != of_libyang) {
                files.push_back(each.path());
            }
        }
    }
    if (files.empty()) {
        GTEST_SKIP() << "no modules of others are installed";
    }
    std::sort(files.begin(), files.end());
    const long seed = number_from("CONFSIM_SEED", std::random_device{}() % 1000000);
    const long rounds = number_from("CONFSIM_ROUNDS", 20);
    std::cout << "CONFSIM_SEED=" << seed << " CONFSIM_ROUNDS=" << rounds << std::endl;
    std::mt19937 random(static_cast<unsigned>(seed));
    std::size_t set = 0;
    long round = 0;
    for (long tries = 0; round < rounds && tries < 100 * rounds && !HasFailure(); ++tries) {
        const std::size_t chosen = random() % files.size();
        all.modules = {files[chosen]};
        SCOPED_TRACE(files[chosen] + ", round " + std::to_string(round));
        (void)test::take_system_log(); // which holds but a few
        try {
            const std::size_t count = round_trip(all).play(random);
            set += count;
            round += count > 0 ? 1 : 0;
        } catch (const failure &reason) {
            const std::string why = reason.what();
            EXPECT_NE(why.find("contains submodule"), std::string::npos) << why;
        }
    }
    std::cout << round << " configurations with " << set << " nodes that were set\n";
    EXPECT_EQ(round, rounds);
}

} // namespace
