// The configurations that the daemon keeps, and the data that plugins publish.
//
//   running     in force
//   old         the running one before the last commit
//   candidate   being edited by the operator
//   deployment  staged by plugins, for a device that is to be set up later
//   published   what plugins pushed: no configuration, and gone with confsim
//
// Running and old are stored at each commit; the deployment when a plugin saves it. They are
// versions that share what they have in common, so a commit without a store, and what plugins ask,
// takes the time of what changed; only a store writes, and reads back, the whole.
#ifndef CONFSIM_CONFIGURATION_H
#define CONFSIM_CONFIGURATION_H

#include "store/store.h"
#include "tree/tree_xml.h"

#include <string>
#include <vector>

namespace confsim {

class configuration {
public:
    // Continues with what stands in the directory, if one is named. Throws failure.
    explicit configuration(const std::string &store_directory);

    [[nodiscard]] const node &running() const { return running_; }
    [[nodiscard]] const node &candidate() const { return candidate_; }
    [[nodiscard]] const node &seen_by_plugins(bool old) const;

    // The configuration, or the published data, of that name; null when there is none.
    [[nodiscard]] const node *named(const std::string &name) const;

    // While a commit goes on, its rollback included, plugins see the candidate as the present
    // configuration and the running one as the old.
    void set_committing(bool now) { committing_ = now; }

    // Takes the running configuration from a file, unless the store had one. Returns whether it
    // did. Throws failure.
    bool begin_with(const std::string &file);

    // Takes the candidate from a file whose root is <config>, <data> or the only top node. Throws
    // failure, with the candidate as before.
    void load(const std::string &file) { candidate_ = read(file); }

    // As the functions of these names do with a tree. Throw failure, with the candidate as before.
    void set(const path &where, const std::optional<std::string> &text)
    {
        confsim::set(candidate_, where, text);
    }
    std::size_t remove(const path &where) { return confsim::remove(candidate_, where); }
    void discard() { candidate_ = running_; }

    // The candidate becomes the running configuration. Throws failure when it cannot be stored,
    // with all as before.
    void accept();

    // What plugins do. `data` are the instances that the path names; oper as in the request: add,
    // delete or update. These throw failure, with all as before.
    void publish(const path &where, const std::vector<const xmlNode *> &data);
    void stage(const path &where, const std::string &oper,
               const std::vector<const xmlNode *> &data);
    void save_deployment() { keep("deployment", deployment_); }

    // The running configuration replaces the deployment, or adds what that lacks.
    void copy_running_to_deployment(bool replace);

    // A tree as XML; the nodes of a whole configuration are wrapped into <config>.
    [[nodiscard]] xml::node_ptr as_xml(const node &tree) { return to_xml(tree, modules_); }

private:
    static node top() { return {"", "config", "", {}}; }
    [[nodiscard]] node read(const std::string &file);
    [[nodiscard]] node restored(const std::string &name);
    [[nodiscard]] std::vector<node> instances(const path &where,
                                              const std::vector<const xmlNode *> &data);
    [[nodiscard]] std::string as_file(const node &tree);
    void keep(const std::string &name, const node &tree);

    store store_;
    module_table modules_;
    node running_;
    node old_;
    node candidate_;
    node deployment_;
    node published_;
    bool committing_ = false;
};

} // namespace confsim

#endif
