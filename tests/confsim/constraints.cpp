// What a change can break is found, also where only a part of the configuration is looked at again:
// each kind of constraint that relates a list entry to something else, and some inside of one.
#include "failure.h"
#include "model/model.h"
#include "model/unchecked.h"
#include "store/configuration.h"
#include "test_support.h"

#include <algorithm>
#include <fstream>

using namespace confsim;

namespace {

struct constraint {
    const char *what;
    const char *above; // in the container that has the list, at its end or in place of an @
    const char *entry; // in the list
    std::vector<const char *> valid;
    const char *breach; // "-" before a path removes it
    bool is_independent = false;
};

const constraint constraints[] = {
    {"a leafref to elsewhere",
     "list f { key n; leaf n { type string; } }",
     "leaf v { type leafref { path '../../f/n'; } }",
     {"f[n='x']", "e[k='a']/v x"},
     "-f"},
    {"a leafref from elsewhere",
     "leaf r { type leafref { path '../e/k'; } }",
     "",
     {"e[k='a']", "r a"},
     "-e[k='a']"},
    {"a leafref in a union",
     "leaf r { type union { type leafref { path '../e/k'; } type uint8; } }",
     "",
     {"e[k='a']", "r a"},
     "-e[k='a']"},
    {"an instance-identifier",
     "leaf r { type instance-identifier; }",
     "",
     {"e[k='a']", "r /m:top/e[k='a']"},
     "-e[k='a']"},
    {"a must on all entries", "must 'count(e) < 2';", "", {"e[k='a']"}, "e[k='b']"},
    {"a must on what is anywhere",
     "",
     "leaf v { type string; must 'count(//m:v) < 2'; }",
     {"e[k='a']/v 1"},
     "e[k='b']/v 1"},
    {"a must that compares entries",
     "",
     "leaf v { type string; } must 'not(../e[v = current()/v and k != current()/k])';",
     {"e[k='a']/v 1", "e[k='b']/v 2"},
     "e[k='b']/v 1"},
    {"a must with an axis", "", "must 'not(preceding-sibling::e)';", {"e[k='a']"}, "e[k='b']"},
    {"a must on what stands above",
     "leaf flag { type string; }",
     "must '../flag';",
     {"flag x", "e[k='a']"},
     "-flag"},
    {"a when on what stands above",
     "leaf flag { type string; }",
     "leaf v { type string; when '../../flag'; }",
     {"flag x", "e[k='a']/v 1"},
     "-flag"},
    {"a must from another place",
     "leaf other { type string; must \"../e[k='a']/v = .\"; }",
     "leaf v { type string; }",
     {"e[k='a']/v 1", "other 1"},
     "e[k='a']/v 2"},
    {"unique",
     "",
     "unique v; leaf v { type string; }",
     {"e[k='a']/v 1", "e[k='b']/v 2"},
     "e[k='b']/v 1"},
    {"the most entries", "", "max-elements 1;", {"e[k='a']"}, "e[k='b']"},
    {"the fewest entries", "", "min-elements 2;", {"e[k='a']", "e[k='b']"}, "-e[k='b']"},
    {"a choice", "choice c { leaf x { type string; } case y { @ } }", "", {"e[k='a']"}, "x 1"},
    {"a must inside",
     "",
     "leaf v { type uint8; } must 'not(v > 5)';",
     {"e[k='a']/v 1"},
     "e[k='a']/v 6",
     true},
    {"a leafref inside",
     "",
     "list i { key n; leaf n { type string; } } leaf v { type leafref { path '../i/n'; } }",
     {"e[k='a']/i[n='x']", "e[k='a']/v x"},
     "-e[k='a']/i",
     true},
    {"unique inside",
     "",
     "list i { key n; unique v; leaf n { type string; } leaf v { type string; } }",
     {"e[k='a']/i[n='x']/v 1", "e[k='a']/i[n='y']/v 2"},
     "e[k='a']/i[n='y']/v 1",
     true},
    {"mandatory inside",
     "",
     "leaf v { type string; mandatory true; }",
     {"e[k='a']/v 1"},
     "e[k='b']",
     true},
    {"beside independent entries",
     "must 'a != 1'; leaf a { type uint8; }",
     "",
     {"e[k='a']", "a 0"},
     "a 1",
     true},
};

std::unique_ptr<model> made(const std::string &body)
{
    const std::string file = "/var/tmp/m.yang";
    std::ofstream(file) << "module m { yang-version 1.1; namespace 'urn:m'; prefix m; " << body
                        << " }";
    return read_model({{file}, {}, {}});
}

void edit(configuration &config, const std::string &change)
{
    const bool is_removal = change[0] == '-';
    const std::size_t blank = change.find(' ');
    const path where = parse_path("/m:top/" + change.substr(is_removal ? 1 : 0, blank));
    if (is_removal) {
        config.remove(where);
    } else {
        config.set(where,
                   blank == change.npos ? std::nullopt : std::optional(change.substr(blank + 1)));
    }
}

void expect_found(const model &known, const constraint &tried)
{
    configuration config("", &known);
    for (const char *each : tried.valid) {
        edit(config, each);
    }
    EXPECT_NO_THROW(config.validate());
    edit(config, tried.breach);
    EXPECT_THROW(config.validate(), failure);
}

TEST(Constraints, AreSeenWhateverIsLookedAtAgain)
{
    for (const constraint &each : constraints) {
        SCOPED_TRACE(each.what);
        std::string body = each.above;
        body.replace(std::min(body.find('@'), body.size()), 1,
                     std::string("list e { key k; leaf k { type string; } ") + each.entry + " }");
        const std::unique_ptr<model> inside = made("container top { " + body + " }");
        EXPECT_EQ(inside->top().child("m", "top")->child("m", "e")->is_independent,
                  each.is_independent);
        expect_found(*inside, each);
    }
    const std::unique_ptr<model> on_top =
        made("list e { key k; leaf k { type string; } must 'count(../m:e) < 2'; }");
    configuration config("", on_top.get());
    config.set(parse_path("/m:e[k='a']"), std::nullopt);
    EXPECT_NO_THROW(config.validate());
    config.set(parse_path("/m:e[k='b']"), std::nullopt);
    EXPECT_THROW(config.validate(), failure);
}

TEST(Constraints, LeaveOutEntriesThatAreTheSame)
{
    const std::unique_ptr<model> known =
        made("container top { leaf a { type uint8; } list e { key k; "
             "leaf k { type string; } leaf v { type uint8; } } }");
    configuration config("", known.get());
    edit(config, "a 1");
    for (int i = 0; i < 100; ++i) {
        edit(config, "e[k='" + std::to_string(i) + "']/v 1");
    }
    const node valid = config.candidate();
    edit(config, "e[k='50']/v 2");
    edit(config, "e[k='new']");
    edit(config, "-e[k='60']");
    const node part = unchecked_part(valid, config.candidate());
    EXPECT_EQ(find(part, parse_path("/m:top/e")).size(), 2U);
    EXPECT_EQ(find(part, parse_path("/m:top/a")).size(), 1U);
}

// Nothing tells that this constraint is about the entries; without them it would not hold.
TEST(Constraints, LeaveTheLastWordToTheWhole)
{
    const std::unique_ptr<model> known =
        made("leaf x { type string; } container top { must \"contains(., 'abc')\"; list e { key k; "
             "leaf k { type string; } } }");
    configuration config("", known.get());
    edit(config, "e[k='abc']");
    EXPECT_NO_THROW(config.validate());
    config.set(parse_path("/m:x"), "1");
    EXPECT_NO_THROW(config.validate());
}

} // namespace
