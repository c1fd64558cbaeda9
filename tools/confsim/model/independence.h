// Which lists have entries that can be checked one at a time. No constraint of the model relates
// such an entry to anything outside it, so a change elsewhere cannot make it invalid, and a change
// of the entry cannot make anything else invalid.
//
// The answer errs on the side of "dependent", which costs time only, except for one thing that no
// module should do, and libyang warns of: a constraint that reads the text of a whole container.
#ifndef CONFSIM_INDEPENDENCE_H
#define CONFSIM_INDEPENDENCE_H

#include <libyang/libyang.h>

#include <set>

namespace confsim::yang {

[[nodiscard]] std::set<const lysc_node *> independent_lists(const ly_ctx *context);

} // namespace confsim::yang

#endif
