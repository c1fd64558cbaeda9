// Changes of the configuration as the subscribed plugins are told of them.
#ifndef CONFSIM_PUBLICATION_H
#define CONFSIM_PUBLICATION_H

#include "service/plugin.h"
#include "tree/difference.h"

#include <list>
#include <string>
#include <vector>

namespace confsim {

// The session in whose name confsim makes all its requests.
inline constexpr const char *session_id = "1";

// One changed instance of a node to which a plugin subscribed.
struct publication {
    plugin_ptr to;
    int index; // of the callback
    int priority;
    int oper; // _ECONF_CONFIG_OPER_TYPE bits
    path where;
};

// What the active ones of the plugins are to be told of: by priority, the smaller number first,
// then in document order.
[[nodiscard]] std::vector<publication> publications(const std::list<plugin_ptr> &plugins,
                                                    const std::vector<difference> &changes);

// What changed and concerns none of them: paths without keys, each once.
[[nodiscard]] std::vector<std::string> unsubscribed(const std::list<plugin_ptr> &plugins,
                                                    const std::vector<difference> &changes);

// The paths that the active ones subscribed to.
[[nodiscard]] std::vector<path> subscribed_paths(const std::list<plugin_ptr> &plugins);

// The parameters of a publish request; `more` tells that further ones of the same commit follow.
[[nodiscard]] xml::node_ptr publish_params(const publication &what, bool more);

// Whether one of those behind `current` goes to the same plugin.
[[nodiscard]] bool more_follow(const std::vector<publication> &all, std::size_t current);

// "add", "remove", "modify", "move", or "modify and move".
[[nodiscard]] const char *verb_of(int oper);

} // namespace confsim

#endif
