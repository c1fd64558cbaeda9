// See yang.h.
#include "model/yang.h"

#include "failure.h"
#include "model/independence.h"

#include <libyang/plugins_types.h>

#include <algorithm>
#include <set>

namespace confsim::yang {

namespace {

using lists = std::set<const lysc_node *>;

// More than any schema has; a document that is nested deeper could not be read.
constexpr std::size_t deepest = 200;

// libyang says: Data location "PATH", line number NUMBER.
std::string place_of_fault(std::string place, told most)
{
    if (most == told::cause || place.empty()) {
        return "";
    }
    const std::size_t line = most == told::place ? place.find("line number") : std::string::npos;
    if (line != std::string::npos) {
        const std::size_t comma = place.rfind(',', line);
        place.erase(comma == std::string::npos ? 0 : comma);
    }
    place.erase(place.find_last_not_of(". ") + 1);
    return place.empty() ? "" : " (" + place + ")";
}

// A value as the type has stored it.
class stored_value {
public:
    stored_value(const lysc_node *leaf, const std::string &text) : leaf_(leaf)
    {
        const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type;
        ly_err_item *error = nullptr;
        const LY_ERR result =
            type->plugin->store(context(), type, text.c_str(), text.size(), 0, LY_VALUE_JSON,
                                nullptr, LYD_HINT_DATA, leaf, &value_, nullptr, &error);
        if (result != LY_SUCCESS && result != LY_EINCOMPLETE) { // which depends on other data
            const std::string why =
                error == nullptr || error->msg == nullptr ? "a wrong value" : error->msg;
            ly_err_free(error);
            throw failure(why);
        }
    }
    ~stored_value() { value_.realtype->plugin->free(context(), &value_); }
    stored_value(const stored_value &) = delete;
    stored_value &operator=(const stored_value &) = delete;

    [[nodiscard]] const ly_ctx *context() const { return leaf_->module->ctx; }

    [[nodiscard]] std::string canonical() const
    {
        return lyd_value_get_canonical(context(), &value_);
    }

    [[nodiscard]] schema_node::written in_xml() const
    {
        ly_set *modules = nullptr;
        (void)ly_set_new(&modules);
        ly_bool is_ours = 0;
        const void *text = value_.realtype->plugin->print(context(), &value_, LY_VALUE_XML, modules,
                                                          &is_ours, nullptr);
        schema_node::written made{text == nullptr ? "" : static_cast<const char *>(text), {}};
        for (std::uint32_t i = 0; i < modules->count; ++i) {
            const auto *each = static_cast<const lys_module *>(modules->objs[i]);
            made.prefixes.emplace(each->prefix, each->ns);
        }
        if (is_ours != 0) {
            std::free(const_cast<void *>(text));
        }
        ly_set_free(modules, nullptr);
        return made;
    }

private:
    const lysc_node *leaf_;
    lyd_value value_{};
};

void add_identities(const lysc_ident *base, std::set<std::string> &to)
{
    for_each_of(base->derived, [&to](const lysc_ident *each) {
        if (to.insert(std::string(each->module->name) + ":" + each->name).second) {
            add_identities(each, to);
        }
    });
}

// The values of a type, where they can be counted.
void add_values(const lysc_type *type, std::vector<std::string> &to)
{
    switch (type->basetype) {
    case LY_TYPE_BOOL:
        to.insert(to.end(), {"true", "false"});
        break;
    case LY_TYPE_ENUM:
        for_each_of(reinterpret_cast<const lysc_type_enum *>(type)->enums,
                    [&to](const lysc_type_bitenum_item &each) { to.emplace_back(each.name); });
        break;
    case LY_TYPE_IDENT: {
        std::set<std::string> names;
        for_each_of(reinterpret_cast<const lysc_type_identityref *>(type)->bases,
                    [&names](const lysc_ident *each) { add_identities(each, names); });
        to.insert(to.end(), names.begin(), names.end());
        break;
    }
    case LY_TYPE_LEAFREF:
        add_values(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, to);
        break;
    case LY_TYPE_UNION:
        for_each_of(reinterpret_cast<const lysc_type_union *>(type)->types,
                    [&to](const lysc_type *each) { add_values(each, to); });
        break;
    default:
        break;
    }
}

schema_node::form form_of(const lysc_node *from)
{
    switch (from->nodetype) {
    case LYS_CONTAINER:
        return schema_node::form::container;
    case LYS_LIST:
        return schema_node::form::list;
    case LYS_LEAFLIST:
        return schema_node::form::leaf_list;
    case LYS_LEAF:
        return schema_node::form::leaf;
    default:
        return schema_node::form::any;
    }
}

void add_leaf_type(schema_node &to, const lysc_node *from)
{
    const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(from)->type;
    add_values(type, to.values);
    to.canonical = [from](const std::string &text) { return stored_value(from, text).canonical(); };
    if (type->plugin->print != lyplg_type_print_simple) { // then the same in every notation
        to.in_xml = [from](const std::string &text) { return stored_value(from, text).in_xml(); };
    }
}

void add_keys(schema_node &to, const lysc_node *from)
{
    if (to.kind == schema_node::form::list) {
        for (const lysc_node *each = lysc_node_child(from); each != nullptr; each = each->next) {
            if (lysc_is_key(each)) {
                to.keys.emplace_back(each->name);
            }
        }
    } else if (to.kind == schema_node::form::leaf_list && to.is_configuration) {
        to.keys.emplace_back("."); // state can hold a value twice
    }
    for (const std::string &each : to.keys) {
        to.joined_keys += (to.joined_keys.empty() ? "" : std::string(1, '\0')) + each;
    }
}

// Choices and cases stand in no data, only what is in them does.
void add_children(schema_node &to, const lysc_node *first, const lists &independent,
                  std::size_t depth)
{
    if (first != nullptr && depth > deepest) {
        throw failure("the nodes of " + std::string(first->module->name) + " are nested too deep");
    }
    for (const lysc_node *from = first; from != nullptr; from = from->next) {
        if ((from->nodetype & (LYS_CHOICE | LYS_CASE)) != 0) {
            add_children(to, lysc_node_child(from), independent, depth + 1);
            continue;
        }
        auto made = std::make_unique<schema_node>();
        made->kind = form_of(from);
        made->module = from->module->name;
        made->name = from->name;
        made->is_configuration = (from->flags & LYS_CONFIG_W) != 0;
        made->is_presence = from->nodetype == LYS_CONTAINER && (from->flags & LYS_PRESENCE) != 0;
        made->is_independent = independent.contains(from);
        made->is_ordered_by_user = made->is_configuration && lysc_is_userordered(from);
        add_keys(*made, from);
        if (made->has_value()) {
            add_leaf_type(*made, from);
        }
        add_children(*made, lysc_node_child(from), independent, depth + 1);
        to.children.push_back(std::move(made));
    }
}

} // namespace

std::string complaint(const ly_ctx *context, told most)
{
    std::string all;
    for (const ly_err_item *each = ly_err_first(context); each != nullptr; each = each->next) {
        if (each->level == LY_LLERR && each->msg != nullptr) {
            all += (all.empty() ? "" : "\n") + std::string(each->msg) +
                   place_of_fault(each->path == nullptr ? "" : each->path, most);
        }
    }
    ly_err_clean(const_cast<ly_ctx *>(context), nullptr);
    return all.empty() ? "libyang gives no reason: is the file empty, or memory exhausted?" : all;
}

void check(LY_ERR result, const ly_ctx *context, told most)
{
    if (result != LY_SUCCESS) {
        throw failure(complaint(context, most));
    }
}

schema_node made_schema(const ly_ctx *context)
{
    const lists independent = independent_lists(context);
    schema_node top;
    std::uint32_t position = 0;
    while (const lys_module *each = ly_ctx_get_module_iter(context, &position)) {
        if (each->implemented != 0 && each->compiled != nullptr) {
            add_children(top, each->compiled->data, independent, 1);
        }
    }
    return top;
}

} // namespace confsim::yang
