// See independence.h. libyang knows which schema nodes an expression looks at.
#include "model/independence.h"

#include "model/yang.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace confsim::yang {

namespace {

using nodes = std::set<const lysc_node *>;

// An expression of a must, a when or a leafref, and the node that it is evaluated for.
struct expression {
    const lysc_node *owner;
    const lysc_node *context;
    const lyxp_expr *parsed;
    const lysc_prefix *prefixes;
};

nodes lists_around(const lysc_node *node)
{
    nodes found;
    for (; node != nullptr; node = node->parent) {
        if (node->nodetype == LYS_LIST) {
            found.insert(node);
        }
    }
    return found;
}

bool is_in_choice(const lysc_node *node)
{
    return node != nullptr && (node->nodetype == LYS_CASE || is_in_choice(node->parent));
}

// What the list demands of its entries together.
bool is_constrained(const lysc_node *node)
{
    const auto *list = reinterpret_cast<const lysc_node_list *>(node);
    return list->uniques != nullptr || list->min != 0 || list->max != UINT32_MAX ||
           is_in_choice(node);
}

class search {
public:
    explicit search(const ly_ctx *context)
    {
        std::uint32_t position = 0;
        while (const lys_module *each = ly_ctx_get_module_iter(context, &position)) {
            if (each->implemented != 0 && each->compiled != nullptr) {
                visit_all(each->compiled->data);
            }
        }
        ly_err_clean(const_cast<ly_ctx *>(context), nullptr); // warnings about expressions
    }

    [[nodiscard]] nodes independent() const
    {
        nodes found;
        if (!looks_anywhere_) {
            std::set_difference(lists_.begin(), lists_.end(), dependent_.begin(), dependent_.end(),
                                std::inserter(found, found.end()));
        }
        return found;
    }

private:
    void visit_all(const lysc_node *first)
    {
        for (const lysc_node *each = first; each != nullptr; each = each->next) {
            if ((each->flags & LYS_CONFIG_R) == 0) { // cases have neither flag
                visit(each);
                visit_all(lysc_node_child(each));
            }
        }
    }

    void visit(const lysc_node *node)
    {
        if (node->nodetype == LYS_LIST) {
            (is_constrained(node) ? dependent_ : lists_).insert(node);
        }
        for_each_of(lysc_node_musts(node), [this, node](const lysc_must &each) {
            relate({node, node, each.cond, each.prefixes});
        });
        for_each_of(lysc_node_when(node), [this, node](const lysc_when *each) {
            relate({node, each->context, each->cond, each->prefixes});
        });
        if ((node->nodetype & LYD_NODE_TERM) != 0) {
            visit_type(node, reinterpret_cast<const lysc_node_leaf *>(node)->type);
        }
    }

    void visit_type(const lysc_node *node, const lysc_type *type)
    {
        if (type->basetype == LY_TYPE_UNION) {
            for_each_of(reinterpret_cast<const lysc_type_union *>(type)->types,
                        [this, node](const lysc_type *each) { visit_type(node, each); });
        } else if (type->basetype == LY_TYPE_LEAFREF) {
            const auto *reference = reinterpret_cast<const lysc_type_leafref *>(type);
            relate({node, node, reference->path, reference->prefixes});
        } else if (type->basetype == LY_TYPE_INST) {
            looks_anywhere_ = true;
        }
    }

    // Makes each list dependent that has a part of what the expression is about, but not all of it.
    void relate(const expression &what)
    {
        // libyang leaves some of the nodes out that are reached by these, and the root always.
        const std::string_view text = lyxp_get_expr(what.parsed);
        if (text.find("//") != text.npos || text.find("::") != text.npos) {
            looks_anywhere_ = true;
            return;
        }
        ly_set *found = nullptr;
        if (lys_find_expr_atoms(what.context, what.owner->module, what.parsed, what.prefixes,
                                LYS_FIND_XP_SCHEMA, &found) != LY_SUCCESS) {
            looks_anywhere_ = true;
            return;
        }
        nodes some = lists_around(what.owner);
        nodes all = some;
        std::erase_if(all, [](const lysc_node *each) { return each->parent == nullptr; });
        for (std::uint32_t i = 0; i < found->count; ++i) {
            const nodes around = lists_around(found->snodes[i]);
            some.insert(around.begin(), around.end());
            std::erase_if(all, [&around](const lysc_node *each) { return !around.contains(each); });
        }
        ly_set_free(found, nullptr);
        std::set_difference(some.begin(), some.end(), all.begin(), all.end(),
                            std::inserter(dependent_, dependent_.end()));
    }

    nodes lists_;
    nodes dependent_;
    bool looks_anywhere_ = false;
};

} // namespace

std::set<const lysc_node *> independent_lists(const ly_ctx *context)
{
    return search(context).independent();
}

} // namespace confsim::yang
