// See publication.h.
#include "service/publication.h"

#include "conf_api.h"

#include <set>

namespace confsim {

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

std::vector<bool> more_follow(const std::vector<publication> &all)
{
    std::vector<bool> more(all.size());
    std::set<plugin_ptr> behind;
    for (std::size_t i = all.size(); i-- > 0;) {
        more[i] = !behind.insert(all[i].to).second;
    }
    return more;
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
