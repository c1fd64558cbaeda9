// What a model says of the places where nodes can stand. The tree looks here and knows nothing of
// who read the model, which outlives all trees.
#ifndef CONFSIM_SCHEMA_H
#define CONFSIM_SCHEMA_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace confsim {

struct schema_node {
    enum class form { container, list, leaf_list, leaf, any };

    // A value as XML has it, and the namespaces of the prefixes in it.
    struct written {
        std::string text;
        std::map<std::string, std::string> prefixes;
    };

    form kind = form::container;
    std::string module{};
    std::string name{};
    bool is_configuration = true;
    bool is_presence = false; // a container that means something when it is empty
    bool is_ordered_by_user = false;
    bool is_independent = false;       // a list whose entries can be checked one at a time
    std::vector<std::string> keys{};   // of a list; "." of a leaf-list; none: told by position
    std::string joined_keys{};         // by zero bytes
    std::vector<std::string> values{}; // that a leaf can have, if they can be counted

    // The usual form of a value. Throws failure for one that is not allowed. Null: any text is.
    std::function<std::string(const std::string &)> canonical{};
    // Null where XML has the same text.
    std::function<written(const std::string &)> in_xml{};

    std::vector<std::unique_ptr<schema_node>> children{};

    // Whether there can be several nodes here.
    [[nodiscard]] bool is_list() const { return kind == form::list || kind == form::leaf_list; }
    [[nodiscard]] bool has_value() const { return kind == form::leaf || kind == form::leaf_list; }

    [[nodiscard]] const schema_node *child(std::string_view of_module,
                                           std::string_view called) const
    {
        for (const auto &each : children) {
            if (each->name == called && each->module == of_module) {
                return each.get();
            }
        }
        return nullptr;
    }
};

} // namespace confsim

#endif
