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

#include "model/model.h"
#include "store/store.h"
#include "tree/tree_text.h"
#include "tree/tree_xml.h"

#include <optional>
#include <string>
#include <vector>

namespace confsim {

// Nodes that a plugin gives for a path, and how they break the model, if they do. Then they are
// taken as they would be without it.
struct given_data {
    path where;
    std::vector<node> nodes;
    std::string breach;
};

class configuration {
public:
    // Continues with what stands in the directory, if one is named. The model, if there is one,
    // outlives this. Throws failure.
    explicit configuration(const std::string &store_directory, const model *known = nullptr);

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

    // Takes the candidate from a file whose root is <config>, <data> or the only top node, or from
    // one called .json, which needs a model. Throws failure, with the candidate as before.
    void load(const std::string &file) { candidate_ = read(file); }

    // As the functions of these names do with a tree. Throw failure, with the candidate as before.
    void set(const path &where, const std::optional<std::string> &text);
    std::size_t remove(const path &where)
    {
        return confsim::remove(candidate_, as_modelled(where));
    }
    void move(const path &where, destination to, const path &other);
    void discard() { candidate_ = running_; }

    // The model, if there is one, and a path as that has it. Throws failure for one that it has
    // not.
    [[nodiscard]] const model *known_model() const { return model_; }
    [[nodiscard]] const schema_node *top_place() const;
    [[nodiscard]] path as_modelled(const path &where) const;

    // Throws failure when the model forbids the candidate. Takes the time of what changed since the
    // last one that it allowed, as far as the model has lists whose entries are independent.
    void validate();

    // The candidate becomes the running configuration. Throws failure when it cannot be stored,
    // with all as before.
    void accept();

    // The instances that a plugin gives for a path.
    [[nodiscard]] given_data read_given(const path &where, const std::vector<const xmlNode *> &data,
                                        model::content what);

    // What plugins do; oper as in the request: add, delete or update. These throw failure, with all
    // as before.
    void publish(const given_data &given);
    void stage(const given_data &given, const std::string &oper);
    void save_deployment() { keep("deployment", deployment_); }

    // The running configuration replaces the deployment, or adds what that lacks.
    void copy_running_to_deployment(bool replace);

    [[nodiscard]] const module_table &modules() const { return modules_; }

    // A tree as XML, and as its text; the nodes of a whole configuration are wrapped into <config>.
    [[nodiscard]] xml::node_ptr as_xml(const node &tree) { return to_xml(tree, modules_); }
    [[nodiscard]] std::string as_xml_text(const node &tree) { return to_xml_text(tree, modules_); }

    // Texts that the model reads: a configuration, and elements inside of what a path leads to,
    // whose namespaces are those of the path where they have none.
    [[nodiscard]] std::string as_text(const node &tree);
    [[nodiscard]] std::string as_text(const path &around,
                                      const std::vector<const xmlNode *> &inside);

    // What a path leads to in a tree, as JSON, which needs a model.
    [[nodiscard]] std::string as_json(const node &tree, const path &where);

private:
    [[nodiscard]] bool is_allowed(const node &tree);
    [[nodiscard]] node top() const { return {"", "config", "", {}, top_place()}; }
    [[nodiscard]] node read(const std::string &file);
    [[nodiscard]] siblings read_xml(const std::string &file, module_table &modules) const;
    [[nodiscard]] siblings read_json(const std::string &file, module_table &modules) const;
    [[nodiscard]] node restored(const std::string &name);
    [[nodiscard]] std::string as_file(const node &tree);
    void keep(const std::string &name, const node &tree);

    store store_;
    const model *model_;
    module_table modules_;
    node running_;
    node old_;
    node candidate_;
    node deployment_;
    node published_;
    std::optional<node> valid_; // the last one that the model allowed
    bool committing_ = false;
};

} // namespace confsim

#endif
