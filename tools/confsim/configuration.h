// The running configuration, which is in force, and the candidate, which is being edited.
#ifndef CONFSIM_CONFIGURATION_H
#define CONFSIM_CONFIGURATION_H

#include "tree.h"

#include <string>

namespace confsim {

class configuration {
public:
    configuration() : running_{top()}, candidate_{top()} {}

    [[nodiscard]] const node &running() const { return running_; }
    [[nodiscard]] const node &candidate() const { return candidate_; }
    [[nodiscard]] const node &seen_by_plugins(bool old) const;

    // While a commit goes on, its rollback included, plugins see the candidate as the present
    // configuration and the running one as the old; otherwise they see the running one only.
    void set_committing(bool now) { committing_ = now; }

    // Reads a file whose root is <config>, <data> or the only top node. Throws failure, with the
    // candidate as before.
    void load(const std::string &file);

    void set(const path &where, const std::string &text) { confsim::set(candidate_, where, text); }
    std::size_t remove(const path &where) { return confsim::remove(candidate_, where); }
    void discard() { candidate_ = running_; }
    void accept() { running_ = candidate_; }

    // A tree as XML; the nodes of a whole configuration are wrapped into <config>.
    [[nodiscard]] xml::node_ptr as_xml(const node &tree) { return to_xml(tree, modules_); }

private:
    static node top() { return {"", "config", "", {}}; }

    node running_;
    node candidate_;
    bool committing_ = false;
    module_table modules_;
};

} // namespace confsim

#endif
