// Random configurations that are valid for the modules of a context.
//
// They are trees of libyang, which lose what it complains about until it does not.
#ifndef CONFSIM_RANDOM_DATA_H
#define CONFSIM_RANDOM_DATA_H

#include "model/yang.h"

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace confsim {

// What stands there explicitly: defaults and empty containers say nothing.
inline std::string as_text(const lyd_node *tree)
{
    char *text = nullptr;
    (void)lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
    const yang::text_ptr owned(text);
    return text == nullptr ? "" : text;
}

// The data of a text; null when they are not valid.
inline yang::data_ptr read_by(const ly_ctx *context, const std::string &text)
{
    lyd_node *tree = nullptr;
    (void)lyd_parse_data_mem(context, text.c_str(), LYD_XML, LYD_PARSE_STRICT,
                             LYD_VALIDATE_NO_STATE, &tree);
    return yang::data_ptr(tree);
}

// Makes a valid tree of one context.
class generator {
public:
    generator(ly_ctx *context, std::mt19937 &random) : context_(context), random_(random) {}

    // Null when no valid one was found.
    yang::data_ptr make()
    {
        std::uint32_t position = 0;
        while (const lys_module *each = ly_ctx_get_module_iter(context_, &position)) {
            if (each->implemented != 0 && each->compiled != nullptr) {
                add_children(nullptr, each->compiled->data, 0);
            }
        }
        int tries = 1000; // what the model demands of an empty configuration comes again and again
        while (lyd_validate_all(&tree_, context_, LYD_VALIDATE_NO_STATE, nullptr) != LY_SUCCESS) {
            if (tree_ == nullptr || --tries == 0) {
                lyd_free_all(tree_);
                return nullptr;
            }
            remove_one();
        }
        const yang::data_ptr made(tree_);
        return read_by(context_, as_text(made.get())); // which finds more than the validation
    }

private:
    std::size_t below(std::size_t count) { return random_() % count; }

    void attach(lyd_node *parent, lyd_node *made)
    {
        if (parent != nullptr) {
            (void)lyd_insert_child(parent, made);
        } else {
            (void)lyd_insert_sibling(tree_, made, &tree_);
        }
    }

    void add_children(lyd_node *parent, const lysc_node *first, int depth)
    {
        for (const lysc_node *each = first; each != nullptr; each = each->next) {
            const bool is_wanted = (each->flags & LYS_MAND_TRUE) != 0 || below(3) != 0;
            if ((each->flags & LYS_CONFIG_W) == 0 || lysc_is_key(each) || !is_wanted) {
                continue;
            }
            if (each->nodetype == LYS_CHOICE) {
                std::vector<const lysc_node *> cases;
                for (const lysc_node *one = lysc_node_child(each); one != nullptr;
                     one = one->next) {
                    cases.push_back(one);
                }
                if (!cases.empty()) { // which features can take away
                    add_children(parent, lysc_node_child(cases[below(cases.size())]), depth);
                }
            } else {
                const bool is_list = (each->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0;
                for (std::size_t i = is_list ? 1 + below(4) : 1; i-- > 0;) {
                    add(parent, each, depth);
                }
            }
        }
    }

    void add(lyd_node *parent, const lysc_node *schema, int depth)
    {
        lyd_node *made = nullptr;
        if (schema->nodetype == LYS_CONTAINER && depth < 12) {
            (void)lyd_new_inner(parent, schema->module, schema->name, 0, &made);
        } else if (schema->nodetype == LYS_LIST && depth < 12) {
            std::vector<std::string> keys;
            for (const lysc_node *each = lysc_node_child(schema);
                 each != nullptr && lysc_is_key(each); each = each->next) {
                keys.push_back(value_of(each));
            }
            std::string all;
            for (std::size_t i = 0; i < keys.size(); ++i) {
                const char quote = keys[i].find('"') == std::string::npos ? '"' : '\'';
                all +=
                    std::string("[") + name_of_key(schema, i) + "=" + quote + keys[i] + quote + "]";
            }
            (void)lyd_new_list2(parent, schema->module, schema->name, all.c_str(), 0, &made);
        } else if ((schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0) {
            const std::string value = value_of(schema);
            (void)lyd_new_term(parent, schema->module, schema->name, value.c_str(), 0, &made);
        }
        if (made != nullptr) {
            if (parent == nullptr) {
                attach(nullptr, made);
            }
            add_children(made, lysc_node_child(schema), depth + 1);
        }
    }

    static std::string name_of_key(const lysc_node *list, std::size_t at)
    {
        const lysc_node *key = lysc_node_child(list);
        while (at-- > 0) {
            key = key->next;
        }
        return key->name;
    }

    // A value of the type if a few tries find one.
    std::string value_of(const lysc_node *leaf)
    {
        const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(leaf)->type;
        for (int i = 0; i < 60; ++i) {
            const std::string value = guess(type, leaf);
            const LY_ERR result = lyd_value_validate(context_, leaf, value.c_str(), value.size(),
                                                     nullptr, nullptr, nullptr);
            if (result == LY_SUCCESS || result == LY_EINCOMPLETE) {
                return value;
            }
        }
        return "";
    }

    std::string guess(const lysc_type *type, const lysc_node *leaf)
    {
        static const std::vector<std::string> texts = {"a",
                                                       "é<&>'",
                                                       "x y",
                                                       "10.0.0.1",
                                                       "10.0.0.0/8",
                                                       "2001:db8::1",
                                                       "fe80::/64",
                                                       "eth0",
                                                       "*",
                                                       "urn:a",
                                                       "a.example",
                                                       "00:11:22:33:44:55",
                                                       "2026-01-01T00:00:00Z",
                                                       "1.3.6",
                                                       "0f",
                                                       "a@b",
                                                       "2026-01-01",
                                                       "ietf-a:b",
                                                       "/",
                                                       "::",
                                                       "1",
                                                       "YWJj",
                                                       "01:02"};
        switch (type->basetype) {
        case LY_TYPE_BOOL:
            return below(2) == 0 ? "true" : "false";
        case LY_TYPE_EMPTY:
            return "";
        case LY_TYPE_ENUM:
        case LY_TYPE_BITS: {
            const auto *items = reinterpret_cast<const lysc_type_enum *>(type)->enums;
            return items[below(LY_ARRAY_COUNT(items))].name;
        }
        case LY_TYPE_IDENT: {
            const lysc_ident *base =
                reinterpret_cast<const lysc_type_identityref *>(type)->bases[0];
            while (base->derived != nullptr &&
                   (below(3) != 0 ||
                    base == reinterpret_cast<const lysc_type_identityref *>(type)->bases[0])) {
                base = base->derived[below(LY_ARRAY_COUNT(base->derived))];
            }
            return std::string(base->module->name) + ":" + base->name;
        }
        case LY_TYPE_UNION: {
            lysc_type **types = reinterpret_cast<const lysc_type_union *>(type)->types;
            return guess(types[below(LY_ARRAY_COUNT(types))], leaf);
        }
        case LY_TYPE_LEAFREF: {
            const auto *reference = reinterpret_cast<const lysc_type_leafref *>(type);
            return existing(leaf, *reference, guess(reference->realtype, leaf));
        }
        case LY_TYPE_INST:
            return existing_path();
        case LY_TYPE_BINARY:
            return "YWJj";
        case LY_TYPE_STRING:
            return texts[below(texts.size())] + (below(4) == 0 ? std::to_string(below(9)) : "");
        case LY_TYPE_DEC64:
            return std::to_string(below(300)) + "." + std::to_string(below(10));
        default:
            return std::to_string(below(below(2) == 0 ? 10 : 5000));
        }
    }

    // The value of a node that a leafref can name, if there is one.
    std::string existing(const lysc_node *leaf, const lysc_type_leafref &reference,
                         std::string otherwise)
    {
        ly_set *targets = nullptr;
        (void)lys_find_expr_atoms(leaf, leaf->module, reference.path, reference.prefixes, 0,
                                  &targets);
        std::vector<std::string> values;
        for_each_node([&](lyd_node *each) {
            if ((each->schema->nodetype & LYD_NODE_TERM) != 0 &&
                ly_set_contains(targets, const_cast<lysc_node *>(each->schema), nullptr) != 0) {
                values.emplace_back(lyd_get_value(each));
            }
        });
        ly_set_free(targets, nullptr);
        return values.empty() ? std::move(otherwise) : values[below(values.size())];
    }

    std::string existing_path()
    {
        std::vector<std::string> paths{"/"};
        for_each_node([&](lyd_node *each) { paths.push_back(path_of(each)); });
        return paths[below(paths.size())];
    }

    template <typename Visit>
    void for_each_node(Visit visit)
    {
        lyd_node *top = nullptr;
        LY_LIST_FOR(tree_, top)
        {
            lyd_node *each = nullptr;
            LYD_TREE_DFS_BEGIN(top, each)
            {
                visit(each);
                LYD_TREE_DFS_END(top, each);
            }
        }
    }

    // Removes the node of the first complaint, or any.
    void remove_one()
    {
        lyd_node *found = nullptr;
        const ly_err_item *error = ly_err_first(context_);
        const std::string place = error != nullptr && error->path != nullptr ? error->path : "";
        const std::size_t begin = place.find("Data location \"");
        if (begin != std::string::npos) {
            std::string where = place.substr(begin + 15);
            where.erase(where.rfind('"'));
            (void)lyd_find_path(tree_, where.c_str(), 0, &found);
        }
        ly_err_clean(context_, nullptr);
        while (found != nullptr && found->parent != nullptr &&
               (lysc_is_key(found->schema) || below(4) == 0)) {
            found = &found->parent->node;
        }
        if (found == nullptr) {
            found = tree_;
        }
        if (found == tree_) {
            tree_ = tree_->next;
        }
        lyd_free_tree(found);
    }

public:
    static std::string path_of(const lyd_node *each)
    {
        const yang::text_ptr text(lyd_path(each, LYD_PATH_STD, nullptr, 0));
        return text.get();
    }

private:
    ly_ctx *context_;
    std::mt19937 &random_;
    lyd_node *tree_ = nullptr;
};

} // namespace confsim

#endif
