// See tree_text.h. The fuzz target for trees compares it with what libxml2 prints.
#include "tree/tree_text.h"

#include <algorithm>
#include <string_view>

namespace confsim {

namespace {

// Content; between double quotes if `is_quoted`.
void add_escaped(std::string &to, std::string_view text, bool is_quoted)
{
    const std::string_view special = is_quoted ? "<>&\r\"" : "<>&\r";
    while (!text.empty()) {
        const std::size_t plain = std::min(text.find_first_of(special), text.size());
        to += text.substr(0, plain);
        text.remove_prefix(plain);
        if (!text.empty()) {
            const char one = text.front();
            to += one == '<'    ? "&lt;"
                  : one == '>'  ? "&gt;"
                  : one == '&'  ? "&amp;"
                  : one == '\r' ? "&#13;"
                                : "&quot;";
            text.remove_prefix(1);
        }
    }
}

class writer {
public:
    explicit writer(module_table &modules) : modules_(modules) {}

    // `outer` is the prefix, with its colon, of the node above; null where no namespace is in
    // force.
    void write(const node &tree, const node *above, const std::string *outer, std::size_t depth)
    {
        std::string declared;
        std::string prefix;
        if (above != nullptr && tree.module == above->module) {
            prefix = outer == nullptr ? "" : *outer;
        } else if (!tree.module.empty()) {
            declared = declaration(tree.module, outer != nullptr, prefix);
            outer = declared.empty() ? nullptr : &prefix;
        }
        const std::string name = prefix + tree.name;
        text_ += '<' + name + declared;
        write_content(tree, name, outer == nullptr ? nullptr : &prefix, depth);
    }

    [[nodiscard]] std::string taken() { return std::move(text_); }

private:
    // A module without a namespace takes back the default one of the node above, if there is one.
    std::string declaration(const std::string &module, bool has_outer, std::string &prefix)
    {
        const std::string &uri = modules_.uri_of(module);
        if (uri.empty() && !has_outer) {
            return "";
        }
        const bool is_prefixed = modules_.needs_prefix(module);
        prefix = is_prefixed ? module + ':' : "";
        return declaration_of(is_prefixed ? module : "", uri);
    }

    static std::string declaration_of(const std::string &prefix, const std::string &uri)
    {
        std::string made = prefix.empty() ? " xmlns=\"" : " xmlns:" + prefix + "=\"";
        add_escaped(made, uri, true);
        return made += '"';
    }

    void write_content(const node &tree, const std::string &name, const std::string *prefix,
                       std::size_t depth)
    {
        if (!tree.is_leaf()) {
            text_ += '>';
            for (const node &child : tree.children) {
                begin_line(depth + 1);
                write(child, &tree, prefix, depth + 1);
            }
            begin_line(depth);
        } else if (tree.text.empty()) {
            text_ += "/>";
            return;
        } else {
            write_value(tree);
        }
        text_ += "</" + name + '>';
    }

    void write_value(const node &leaf)
    {
        if (leaf.place == nullptr || !leaf.place->in_xml) {
            text_ += '>';
            add_escaped(text_, leaf.text, false);
            return;
        }
        const schema_node::written value = leaf.place->in_xml(leaf.text);
        for (const auto &[prefix, uri] : value.prefixes) {
            text_ += declaration_of(prefix, uri);
        }
        text_ += '>';
        add_escaped(text_, value.text, false);
    }

    void begin_line(std::size_t depth) { text_.append("\n").append(2 * depth, ' '); }

    module_table &modules_;
    std::string text_;
};

} // namespace

std::string to_xml_text(const node &tree, module_table &modules)
{
    writer one(modules);
    one.write(tree, nullptr, nullptr, 0);
    return one.taken();
}

} // namespace confsim
