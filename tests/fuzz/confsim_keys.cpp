// confsim's lists by a model: entries of two keys, in the order that users give, changed by paths
// that name the keys in any order. A plain list of what should be there goes along.
#include "failure.h"
#include "fuzz.h"
#include "model/resolve.h"
#include "tree/tree.h"

#include <algorithm>
#include <array>

using namespace confsim;

namespace {

std::unique_ptr<schema_node> made(schema_node::form kind, const char *name)
{
    auto one = std::make_unique<schema_node>();
    one->kind = kind;
    one->module = "m";
    one->name = name;
    return one;
}

// container c { list l { key "a b"; ordered-by user; leaf a; leaf b; leaf v; } leaf-list a; }
schema_node made_schema()
{
    using enum schema_node::form;
    auto entry = made(list, "l");
    entry->is_ordered_by_user = true;
    entry->keys = {"a", "b"};
    entry->joined_keys = std::string("a\0b", 3);
    for (const char *name : {"a", "b", "v"}) {
        entry->children.push_back(made(leaf, name));
    }
    auto texts = made(leaf_list, "a");
    texts->keys = {"."};
    texts->joined_keys = ".";
    auto outer = made(container, "c");
    outer->children.push_back(std::move(entry));
    outer->children.push_back(std::move(texts));
    schema_node top;
    top.children.push_back(std::move(outer));
    return top;
}

const schema_node schema = made_schema();

struct entry {
    std::string a;
    std::string b;
    std::string value;

    [[nodiscard]] bool is(const entry &other) const { return a == other.a && b == other.b; }
};

path path_to(const entry &one)
{
    return {{"m", "c", {}}, {"m", "l", {{"a", one.a}, {"b", one.b}}}};
}

// As it is typed: the keys in any order, the module left out, and read again.
path typed(fuzz::input &in, const entry &one)
{
    path where = path_to(one);
    if (in.ConsumeBool()) {
        std::swap(where[1].keys[0], where[1].keys[1]);
    }
    const path read = resolved(&schema, parse_path(to_text(where)));
    MUST(to_text(read) == to_text(path_to(one)), to_text(read), to_text(where));
    return read;
}

entry drawn(fuzz::input &in)
{
    const auto key = [&in] { return std::string(in.pick("1|2|x|[|]|'|/m:c|a=b|=|.|1 | 1|\\")); };
    std::string a = key();
    return {std::move(a), key(), ""};
}

class plain_list {
public:
    void set(const entry &one)
    {
        const auto known = place_of(one);
        if (known == entries_.end()) {
            entries_.push_back(one);
        } else {
            known->value = one.value;
        }
    }

    bool remove(const entry &one)
    {
        return std::erase_if(entries_, [&one](const entry &each) { return each.is(one); }) > 0;
    }

    // Whether the entry can be moved there.
    bool move(const entry &one, destination to, const entry &other)
    {
        const bool is_beside = to == destination::before || to == destination::after;
        const auto from = place_of(one);
        if (from == entries_.end() ||
            (is_beside && (one.is(other) || place_of(other) == entries_.end()))) {
            return false;
        }
        const entry moved = *from;
        entries_.erase(from);
        const auto at = is_beside                  ? place_of(other)
                        : to == destination::first ? entries_.begin()
                                                   : entries_.end();
        entries_.insert(at + (to == destination::after ? 1 : 0), moved);
        return true;
    }

    // Null where there is none.
    [[nodiscard]] const entry *beside(const entry &one, std::ptrdiff_t distance)
    {
        const std::ptrdiff_t at = place_of(one) - entries_.begin() + distance;
        return at < 0 || at >= std::ssize(entries_) ? nullptr
                                                    : &entries_[static_cast<std::size_t>(at)];
    }

    [[nodiscard]] bool has(const entry &one) { return place_of(one) != entries_.end(); }
    [[nodiscard]] const std::vector<entry> &all() const { return entries_; }

private:
    std::vector<entry>::iterator place_of(const entry &one)
    {
        return std::find_if(entries_.begin(), entries_.end(),
                            [&one](const entry &each) { return each.is(one); });
    }

    std::vector<entry> entries_;
};

void expect_same(const node &top, const plain_list &expected)
{
    const std::vector<const node *> found = find(top, {{"m", "c", {}}, {"m", "l", {}}});
    MUST(found.size() == expected.all().size(), std::to_string(found.size()));
    for (std::size_t i = 0; i < found.size(); ++i) {
        const entry &wanted = expected.all()[i];
        MUST(value_of_key(*found[i], "a") == wanted.a, wanted.a);
        MUST(value_of_key(*found[i], "b") == wanted.b, wanted.b);
        MUST(value_of_key(*found[i], "v") == wanted.value, wanted.value);
        MUST(find(top, path_to(wanted)).size() == 1, wanted.a, wanted.b);
    }
}

void expect_neighbours(const node &top, const entry &one, plain_list &expected)
{
    const neighbours found = find_neighbours(top, path_to(one));
    const auto text_of = [](const std::optional<path> &where) {
        return where ? to_text(*where) : "";
    };
    for (const auto &[distance, seen] : {std::pair(-1, found.previous), {1, found.next}}) {
        // The texts of the leaf-list stand behind or between the entries.
        const entry *wanted = expected.beside(one, distance);
        if (wanted != nullptr) {
            MUST(text_of(seen) == to_text(path_to(*wanted)), text_of(seen),
                 to_text(path_to(*wanted)));
        } else {
            MUST(!seen || seen->back().name != "l", text_of(seen));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    node top{"", "config", "", {}, &schema};
    plain_list expected;
    while (!in.ended()) {
        entry one = drawn(in);
        const std::size_t what = in.below(6);
        if (what == 0) {
            one.value = in.pick("a|b|");
            path where = typed(in, one);
            where.push_back({"m", "v", {}});
            set(top, where, one.value);
            expected.set(one);
        } else if (what == 1) {
            MUST(remove(top, typed(in, one)) == (expected.remove(one) ? 1 : 0), one.a, one.b);
        } else if (what == 2) {
            constexpr std::array all{destination::first, destination::last, destination::before,
                                     destination::after};
            const destination to = all[in.below(all.size())];
            const entry other = drawn(in);
            const bool is_possible = expected.move(one, to, other);
            try {
                move(top, typed(in, one), to, typed(in, other));
                MUST(is_possible, one.a, one.b, other.a, other.b);
            } catch (const failure &reason) {
                MUST(!is_possible, reason.what());
            }
        } else if (what == 3 && expected.has(one)) {
            expect_neighbours(top, one, expected);
        } else if (what == 4) {
            set(top, {{"m", "c", {}}, {"m", "a", {{".", one.a}}}}, std::nullopt);
        } else {
            const std::string text = in.ConsumeBool() ? in.path() : in.text(60);
            try {
                const path where = resolved(&schema, parse_path(text));
                MUST(place_of(&schema, where) != nullptr, text);
                MUST(to_text(resolved(&schema, where)) == to_text(where), text);
            } catch (const failure &) { // as most of them lead nowhere
            }
        }
        expect_same(top, expected);
    }
    return 0;
}
