// Changes of the configuration as the subscribed plugins are told of them.
#ifndef CONFSIM_PUBLICATION_H
#define CONFSIM_PUBLICATION_H

#include "service/plugin.h"
#include "tree/difference.h"

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

// The parameters of a publish request; `more` tells that further ones of the same commit follow to
// the same plugin.
[[nodiscard]] xml::node_ptr publish_params(const publication &what, bool more);

// For each of them, whether one of those behind it goes to the same plugin.
[[nodiscard]] std::vector<bool> more_follow(const std::vector<publication> &all);

// "add", "remove", "modify", "move", or "modify and move".
[[nodiscard]] const char *verb_of(int oper);

} // namespace confsim

#endif
