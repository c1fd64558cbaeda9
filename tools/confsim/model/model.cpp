// See model.h. Everything that is asked of the model is asked of libyang.
#include "model/model.h"

#include "failure.h"
#include "model/limited.h"
#include "model/modules.h"
#include "model/outline.h"
#include "model/resolve.h"
#include "model/yang.h"
#include "tree/xml.h"

#include <set>

namespace confsim {

namespace {

class yang_model final : public model {
public:
    explicit yang_model(const model_sources &from)
        : modules_(yang::load_modules(from)), top_(yang::made_schema(context()))
    {
        std::uint32_t position = 0;
        while (const lys_module *each = ly_ctx_get_module_iter(context(), &position)) {
            namespaces_.emplace(each->name, each->ns);
            if (each->implemented == 0 || each->compiled == nullptr) {
                continue;
            }
            for (const lysc_node_action *operation = each->compiled->rpcs; operation != nullptr;
                 operation = operation->next) {
                operations_.push_back(std::string(each->name) + ":" + operation->name);
            }
        }
    }

    [[nodiscard]] const schema_node &top() const override { return top_; }
    [[nodiscard]] const std::map<std::string, std::string> &namespaces() const override
    {
        return namespaces_;
    }
    [[nodiscard]] const std::vector<std::string> &operations() const override
    {
        return operations_;
    }

    [[nodiscard]] siblings read(const std::string &text, notation form, content what,
                                module_table &modules) const override
    {
        const yang::data_ptr data =
            parsed(text, form == notation::json ? LYD_JSON : LYD_XML, state_of(what));
        return to_nodes(data.get(), top_, modules);
    }

    void validate(const std::string &text) const override
    {
        lyd_node *tree = nullptr;
        const LY_ERR result = lyd_parse_data_mem(context(), text.c_str(), LYD_XML, LYD_PARSE_STRICT,
                                                 LYD_VALIDATE_NO_STATE, &tree);
        const yang::data_ptr owned(tree);
        yang::check(result, context());
    }

    void check(message which, const std::string &text,
               const std::string &configuration) const override
    {
        const bool is_notification = which == message::notification;
        ly_in *made = nullptr;
        yang::check(ly_in_new_memory(text.c_str(), &made), context());
        const yang::input_ptr input(made);
        const yang::data_ptr others = parsed(configuration, LYD_XML, 0);
        const lyd_type kind = is_notification            ? LYD_TYPE_NOTIF_YANG
                              : which == message::output ? LYD_TYPE_REPLY_YANG
                                                         : LYD_TYPE_RPC_YANG;
        lyd_node *tree = nullptr;
        lyd_node *operation = nullptr;
        LY_ERR result =
            lyd_parse_op(context(), nullptr, input.get(), LYD_XML, kind, &tree, &operation);
        const yang::data_ptr owned(tree);
        yang::check(result, context());
        result = lyd_validate_op(tree, others.get(), kind, nullptr);
        yang::check(result, context());
    }

    [[nodiscard]] bool has_operation(const path &where) const override
    {
        const lysc_node *found = nullptr;
        for (const step &each : where) {
            const lys_module *owner = ly_ctx_get_module_implemented(context(), each.module.c_str());
            found = owner == nullptr ? nullptr
                                     : lys_find_child(found, owner, each.name.c_str(), 0, 0, 0);
            if (found == nullptr || (found->nodetype == LYS_LIST && each.keys.empty())) {
                return false;
            }
        }
        return found != nullptr && (found->nodetype & (LYS_RPC | LYS_ACTION)) != 0;
    }

    [[nodiscard]] std::string to_json(const std::string &text) const override
    {
        const yang::data_ptr data = parsed(text, LYD_XML, 0);
        char *printed = nullptr;
        const LY_ERR result = lyd_print_mem(&printed, data.get(), LYD_JSON, LYD_PRINT_WITHSIBLINGS);
        const yang::text_ptr owned(printed);
        yang::check(result, context());
        return without_line_end(printed == nullptr ? "{}" : printed);
    }

    [[nodiscard]] std::string outline(const path &where) const override
    {
        const path resolved_path = where.empty() ? where : resolved(&top_, where);
        std::string text;
        std::uint32_t position = 0;
        while (const lys_module *each = ly_ctx_get_module_iter(context(), &position)) {
            if (where.empty() ? modules_.named.contains(each->name)
                              : each->name == resolved_path.front().module) {
                char *printed = nullptr;
                const LY_ERR result = lys_print_mem(&printed, each, LYS_OUT_TREE, 0);
                const yang::text_ptr owned(printed);
                yang::check(result, context());
                text += printed == nullptr ? "" : printed;
            }
        }
        return without_line_end(where.empty() ? text : part_of_outline(text, resolved_path));
    }

private:
    [[nodiscard]] const ly_ctx *context() const { return modules_.context.get(); }

    static std::uint32_t state_of(content what)
    {
        return what == content::configuration ? LYD_PARSE_NO_STATE : 0;
    }

    static std::string without_line_end(std::string text)
    {
        text.erase(text.find_last_not_of('\n') + 1);
        return text;
    }

    [[nodiscard]] yang::data_ptr parsed(const std::string &text, LYD_FORMAT format,
                                        std::uint32_t options) const
    {
        if (text.find('\0') != std::string::npos) { // where libyang would take the text to end
            throw failure("there is a zero byte in the text");
        }
        lyd_node *tree = nullptr;
        const LY_ERR result = lyd_parse_data_mem(
            context(), text.c_str(), format, options | LYD_PARSE_STRICT | LYD_PARSE_ONLY, 0, &tree);
        yang::data_ptr data(tree);
        yang::check(result, context(), format == LYD_JSON ? yang::told::line : yang::told::place);
        return data;
    }

    // Data without a model, inside of anydata and anyxml, are as XML says.
    static void take_any(const lyd_node *from, node &to, module_table &modules)
    {
        char *printed = nullptr;
        (void)lyd_print_mem(&printed, from, LYD_XML, 0);
        const yang::text_ptr owned(printed);
        const xml::doc_ptr doc = xml::parse_text(printed == nullptr ? "" : printed, to.name);
        node plain = from_xml(xmlDocGetRootElement(doc.get()), "", modules);
        to.text = std::move(plain.text);
        to.children = std::move(plain.children);
    }

    // Frees the entries below on the way, or a large file would be there twice.
    static siblings to_nodes(lyd_node *first, const schema_node &parent, module_table &modules)
    {
        std::vector<std::shared_ptr<const node>> made;
        for (lyd_node *from = first, *next = nullptr; from != nullptr; from = next) {
            next = from->next;
            const schema_node *place = parent.child(from->schema->module->name, from->schema->name);
            node to{from->schema->module->name, from->schema->name, "", {}, place};
            if (place == nullptr) {
                throw failure(to.name + " is no data");
            }
            if ((from->schema->nodetype & LYD_NODE_TERM) != 0) {
                to.text = lyd_get_value(from);
            } else if ((from->schema->nodetype & LYD_NODE_ANY) != 0) {
                take_any(from, to, modules);
            } else {
                to.children = to_nodes(lyd_child(from), *place, modules);
            }
            made.push_back(std::make_shared<const node>(std::move(to)));
            if (from->parent != nullptr && from->schema->nodetype == LYS_LIST) {
                lyd_free_tree(from);
            }
        }
        return siblings(made);
    }

    yang::loaded_modules modules_;
    schema_node top_;
    std::map<std::string, std::string> namespaces_;
    std::vector<std::string> operations_;
};

} // namespace

std::unique_ptr<model> read_model(const model_sources &from)
{
    try_in_child([&from] { const yang_model tried(from); }, "what the modules describe");
    return std::make_unique<yang_model>(from);
}

} // namespace confsim
