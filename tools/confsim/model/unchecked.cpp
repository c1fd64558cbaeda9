// See unchecked.h.
#include "model/unchecked.h"

namespace confsim {

namespace {

using kept = std::vector<std::shared_ptr<const node>>;

siblings unchecked_of(const siblings &valid, const siblings &changed, const schema_node &place)
{
    kept all;
    for (const auto &each : place.children) {
        if (each->is_independent) {
            continue;
        }
        const step called{each->module, each->name, {}};
        for (const branch &found : changed.matching(called)) {
            if (each->kind != schema_node::form::container) {
                all.push_back(found.tree);
                continue;
            }
            const std::vector<branch> before = valid.matching(called);
            node part = *found.tree;
            part.children = unchecked_of(before.empty() ? siblings() : before[0].tree->children,
                                         found.tree->children, *each);
            all.push_back(std::make_shared<const node>(std::move(part)));
        }
    }
    siblings::compare(valid, changed, [&all](const branch * /*before*/, const branch *after) {
        if (after != nullptr && after->tree->place->is_independent) {
            all.push_back(after->tree);
        }
    });
    return siblings(all);
}

} // namespace

node unchecked_part(const node &valid, const node &changed)
{
    node part = changed;
    part.children = unchecked_of(valid.children, changed.children, *changed.place);
    return part;
}

} // namespace confsim
