// A model of the data: YANG modules, read by libyang, which also reads, checks and prints data.
// Where confsim is built without libyang, there is none (model_missing.cpp).
#ifndef CONFSIM_MODEL_H
#define CONFSIM_MODEL_H

#include "model/schema.h"
#include "tree/tree.h"
#include "tree/tree_xml.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace confsim {

struct model_sources {
    std::vector<std::string> modules{};     // files, and directories of files
    std::vector<std::string> directories{}; // of what they import
    std::vector<std::string> features{};    // MODULE:NAME
};

class model {
public:
    enum class notation { xml, json };
    enum class content { configuration, all };
    enum class message { input, output, notification };

    virtual ~model() = default;
    model(const model &) = delete;
    model &operator=(const model &) = delete;

    // Above all top nodes.
    [[nodiscard]] virtual const schema_node &top() const = 0;

    // The namespaces of all modules.
    [[nodiscard]] virtual const std::map<std::string, std::string> &namespaces() const = 0;

    // The top nodes in a text. Throws failure for what the model does not have; what is missing,
    // and what depends on other data, is left to validate().
    [[nodiscard]] virtual siblings read(const std::string &text, notation form, content what,
                                        module_table &modules) const = 0;

    // Throws failure when the model forbids a configuration, given as XML.
    virtual void validate(const std::string &text) const = 0;

    // Throws failure when the model forbids the input or output of an operation, with the elements
    // above it, or a notification. They may refer to a configuration.
    virtual void check(message which, const std::string &text,
                       const std::string &configuration) const = 0;

    // The operations outside of data, each as MODULE:NAME.
    [[nodiscard]] virtual const std::vector<std::string> &operations() const = 0;
    // Whether a path leads to an operation, and not through a list without keys.
    [[nodiscard]] virtual bool has_operation(const path &where) const = 0;

    // XML data in the other notation.
    [[nodiscard]] virtual std::string to_json(const std::string &text) const = 0;

    // The nodes above and below a path, or all, in the usual notation of trees.
    [[nodiscard]] virtual std::string outline(const path &where) const = 0;

protected:
    model() = default;
};

// Throws failure for modules that cannot be used.
[[nodiscard]] std::unique_ptr<model> read_model(const model_sources &from);

} // namespace confsim

#endif
