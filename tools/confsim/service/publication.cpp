// See publication.h.
#include "service/publication.h"

#include "conf_api.h"

#include <algorithm>
#include <set>

namespace confsim {

namespace {

struct ordered_publication {
    publication what;
    std::size_t order;
};

} // namespace

std::vector<publication> publications(const std::list<plugin_ptr> &plugins,
                                      const std::vector<difference> &changes)
{
    std::vector<ordered_publication> found;
    for (const plugin_ptr &to : plugins) {
        if (!to->is_active()) {
            continue;
        }
        for (const subscription &each : to->configs) {
            for (instance_change &change : changed_instances(changes, each.where)) {
                found.push_back(
                    {{to, each.index, each.priority, change.oper, std::move(change.where)},
                     change.order});
            }
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const ordered_publication &left, const ordered_publication &right) {
                         return std::pair(left.what.priority, left.order) <
                                std::pair(right.what.priority, right.order);
                     });
    std::vector<publication> ordered;
    ordered.reserve(found.size());
    for (ordered_publication &each : found) {
        ordered.push_back(std::move(each.what));
    }
    return ordered;
}

std::vector<path> subscribed_paths(const std::list<plugin_ptr> &plugins)
{
    std::vector<path> found;
    for (const plugin_ptr &each : plugins) {
        for (const subscription &config : each->configs) {
            if (each->is_active()) {
                found.push_back(config.where);
            }
        }
    }
    return found;
}

std::vector<std::string> unsubscribed(const std::list<plugin_ptr> &plugins,
                                      const std::vector<difference> &changes)
{
    const std::vector<path> subscribed = subscribed_paths(plugins);
    std::vector<std::string> found;
    std::set<std::string> seen;
    for (const difference &change : changes) {
        if (std::none_of(subscribed.begin(), subscribed.end(),
                         [&change](const path &each) { return concerns(change, each); })) {
            path bare = change.where;
            for (step &each : bare) {
                each.keys.clear();
            }
            if (seen.insert(to_text(bare)).second) {
                found.push_back(to_text(bare));
            }
        }
    }
    return found;
}

xml::node_ptr publish_params(const publication &what, bool more)
{
    xml::node_ptr params = xml::element("params");
    xml::add(params.get(), "type", "config");
    xml::add(params.get(), "session-id", session_id);
    xml::add(params.get(), "callback", std::to_string(what.index));
    xmlNode *info = xml::add(params.get(), "info");
    xml::add(info, "oper-type", std::to_string(what.oper));
    xml::add(info, "more-flag", more ? "1" : "0");
    xml::add(info, "priority", std::to_string(what.priority));
    xml::add(info, "path", to_text(what.where));
    return params;
}

bool more_follow(const std::vector<publication> &all, std::size_t current)
{
    return std::any_of(all.begin() + static_cast<std::ptrdiff_t>(current) + 1, all.end(),
                       [&](const publication &later) { return later.to == all[current].to; });
}

const char *verb_of(int oper)
{
    if ((oper & CONFIG_OP_ADD) != 0) {
        return "add";
    }
    if ((oper & CONFIG_OP_RM) != 0) {
        return "remove";
    }
    if ((oper & CONFIG_OP_MOVE) == 0) {
        return "modify";
    }
    return (oper & CONFIG_OP_MOD) != 0 ? "modify and move" : "move";
}

} // namespace confsim
