// See configuration.h.
#include "store/configuration.h"

#include "failure.h"
#include "files.h"
#include "model/resolve.h"
#include "model/unchecked.h"

#include <malloc.h>
#include <string_view>

namespace confsim {

namespace {

// What plugins can make confsim keep.
constexpr std::size_t most_bytes = std::size_t{64} << 20;

void refuse_excess(const node &tree, const path &where)
{
    if (size_of(tree) > most_bytes) {
        throw failure("There is no room for " + (where.empty() ? "more" : to_text(where)) + ".");
    }
}

// A file that is read becomes millions of small blocks, and so many are freed in between. To merge
// these in bulk over and over, as fast bins do, would take a quarter of the time.
class without_fast_bins {
public:
    without_fast_bins() { set(0); }
    ~without_fast_bins() { set(usual); }
    without_fast_bins(const without_fast_bins &) = delete;
    without_fast_bins &operator=(const without_fast_bins &) = delete;

private:
    static constexpr int usual = 64 * sizeof(std::size_t) / 4;

    static void set([[maybe_unused]] int most)
    {
#ifdef M_MXFAST
        (void)mallopt(M_MXFAST, most);
#endif
    }
};

std::string print_inside(const xmlNode *wrapper)
{
    std::string all;
    for (xmlNode *each = xml::first_element(wrapper); each != nullptr;
         each = xml::next_element(each)) {
        all += xml::print_alone(each);
    }
    return all;
}

} // namespace

configuration::configuration(const std::string &store_directory, const model *known)
    : store_(store_directory), model_(known)
{
    if (model_ != nullptr) {
        for (const auto &[module, uri] : model_->namespaces()) {
            modules_.know(module, uri);
        }
    }
    running_ = restored("running");
    old_ = restored("old");
    candidate_ = running_;
    deployment_ = restored("deployment");
    published_ = top();
}

const schema_node *configuration::top_place() const
{
    return model_ == nullptr ? nullptr : &model_->top();
}

path configuration::as_modelled(const path &where) const
{
    return resolved(top_place(), where);
}

node configuration::restored(const std::string &name)
{
    const std::string file = store_.file_of(name);
    return file.empty() ? top() : read(file);
}

const node &configuration::seen_by_plugins(bool old) const
{
    if (committing_) {
        return old ? running_ : candidate_;
    }
    return old ? old_ : running_;
}

const node *configuration::named(const std::string &name) const
{
    const struct {
        std::string_view name;
        const node *tree;
    } all[] = {{"running", &running_},
               {"old", &old_},
               {"candidate", &candidate_},
               {"deployment", &deployment_},
               {"published", &published_}};
    for (const auto &each : all) {
        if (each.name == name) {
            return each.tree;
        }
    }
    return nullptr;
}

siblings configuration::read_xml(const std::string &file, module_table &modules) const
{
    xml::doc_ptr doc = xml::parse_file(file);
    xmlNode *root = xmlDocGetRootElement(doc.get());
    const std::string_view name = xml::name(root);
    const bool is_wrapped = name == "config" || name == "data";
    if (is_wrapped && !xml::text(root).empty()) {
        throw failure("there is a text right inside of <" + std::string(name) + ">");
    }
    std::string text; // for the model
    std::vector<std::shared_ptr<const node>> read;
    for (xmlNode *each = is_wrapped ? xml::first_element(root) : root; each != nullptr;) {
        xmlNode *next = is_wrapped ? xml::next_element(each) : nullptr;
        if (model_ != nullptr) {
            text += xml::print_alone(each);
        } else {
            read.push_back(std::make_shared<const node>(from_xml(xml::taken(each), "", modules)));
        }
        each = next;
    }
    doc.reset();
    return model_ == nullptr
               ? siblings(read)
               : model_->read(text, model::notation::xml, model::content::configuration, modules);
}

siblings configuration::read_json(const std::string &file, module_table &modules) const
{
    if (model_ == nullptr) {
        throw failure("only with a model (--yang) can JSON be read");
    }
    return model_->read(read_file(file), model::notation::json, model::content::configuration,
                        modules);
}

node configuration::read(const std::string &file)
{
    node loaded = top();
    module_table modules = modules_; // a refused file names no modules
    const without_fast_bins scope;
    try {
        loaded.children =
            file.ends_with(".json") ? read_json(file, modules) : read_xml(file, modules);
        refuse_unreadable(loaded, {});
    } catch (const failure &error) {
        const std::string why = error.what();
        throw failure(why.starts_with(file) ? why : file + ": " + why);
    }
    modules_ = std::move(modules);
    return loaded;
}

bool configuration::begin_with(const std::string &file)
{
    if (!store_.file_of("running").empty()) {
        return false;
    }
    running_ = read(file);
    keep("running", running_);
    discard();
    return true;
}

void configuration::keep(const std::string &name, const node &tree)
{
    if (store_.is_open()) {
        store_.write(name, as_file(tree));
    }
}

std::string configuration::as_file(const node &tree)
{
    std::string text = as_xml_text(tree);
    xml::check_text(text, "the configuration cannot be read back"); // as the next start does
    return text += '\n';
}

void configuration::accept()
{
    if (store_.is_open()) {
        store_.write_and_keep("running", as_file(candidate_), "old");
    }
    old_ = std::move(running_);
    running_ = candidate_;
}

void configuration::set(const path &where, const std::optional<std::string> &text)
{
    path place = as_modelled(where);
    std::optional<std::string> value = text;
    if (const schema_node *modelled = place_of(top_place(), place)) {
        if (!modelled->is_configuration) {
            throw failure(to_text(place) + " is state, not configuration");
        }
        if (modelled->kind == schema_node::form::leaf_list && value && place.back().keys.empty()) {
            place.back().keys.push_back({".", canonical_value(*modelled, *value, place)});
            value.reset();
        }
        if (modelled->kind == schema_node::form::leaf && !value &&
            find(candidate_, place).empty()) {
            value = ""; // which not every type allows
        }
        if (value && modelled->has_value()) {
            value = canonical_value(*modelled, *value, place);
        } else if (value && modelled->kind != schema_node::form::any) {
            throw failure(to_text(place) + " is not a leaf");
        }
    }
    confsim::set(candidate_, place, value);
}

void configuration::move(const path &where, destination to, const path &other)
{
    const path place = as_modelled(where);
    const schema_node *modelled = place_of(top_place(), place);
    if (model_ == nullptr) {
        throw failure("only a model (--yang) tells which lists have an order");
    }
    if (modelled == nullptr || !modelled->is_ordered_by_user) {
        throw failure(to_text(place) + " belongs to no list that users order");
    }
    confsim::move(candidate_, place, to, as_modelled(other));
}

std::string configuration::as_text(const node &tree)
{
    std::string all;
    for (const node &each : tree.children) {
        all += as_xml_text(each);
    }
    return all;
}

std::string configuration::as_text(const path &around, const std::vector<const xmlNode *> &inside)
{
    node whole = top();
    if (!around.empty()) {
        confsim::set(whole, around, std::nullopt);
    }
    const xml::node_ptr wrapped = as_xml(whole);
    xmlNode *inner = wrapped.get();
    for (const step &each : around) {
        inner = xml::child(inner, each.name.c_str());
    }
    for (const xmlNode *each : inside) {
        xml::add_inheriting(inner, each);
    }
    return print_inside(wrapped.get());
}

std::string configuration::as_json(const node &tree, const path &where)
{
    if (model_ == nullptr) {
        throw failure("only with a model (--yang) can JSON be shown");
    }
    if (where.empty()) {
        return model_->to_json(as_text(tree));
    }
    std::vector<xml::node_ptr> owned;
    std::vector<const xmlNode *> shown;
    for (const node *each : find(tree, where)) {
        owned.push_back(as_xml(*each));
        shown.push_back(owned.back().get());
    }
    return model_->to_json(as_text({where.begin(), where.end() - 1}, shown));
}

bool configuration::is_allowed(const node &tree)
{
    try {
        model_->validate(as_text(tree));
        return true;
    } catch (const failure &) {
        return false;
    }
}

void configuration::validate()
{
    if (model_ == nullptr) {
        return;
    }
    if (!valid_ || !is_allowed(unchecked_part(*valid_, candidate_))) {
        model_->validate(as_text(candidate_)); // the whole has the last word
    }
    valid_ = candidate_;
}

given_data configuration::read_given(const path &where, const std::vector<const xmlNode *> &data,
                                     model::content what)
{
    given_data given{where, {}, ""};
    if (model_ != nullptr) {
        try {
            given.where = as_modelled(where);
            node whole = top();
            whole.children =
                model_->read(as_text({given.where.begin(), given.where.end() - 1}, data),
                             model::notation::xml, what, modules_);
            for (const node *each : find(whole, given.where)) {
                given.nodes.push_back(*each);
            }
            return given;
        } catch (const failure &reason) {
            given.breach = reason.what();
        }
    }
    for (const xmlNode *each : data) {
        given.nodes.push_back(from_xml(each, where.back().module, modules_));
    }
    return given;
}

void configuration::publish(const given_data &given)
{
    node changed = published_;
    put(changed, given.where, given.nodes);
    refuse_excess(changed, given.where);
    published_ = std::move(changed);
}

void configuration::stage(const given_data &given, const std::string &oper)
{
    node changed = deployment_;
    const bool there = !find(changed, given.where).empty();
    if (oper == "delete") {
        if (!there) {
            throw failure("The deployment holds no " + to_text(given.where) + ".");
        }
        confsim::remove(changed, given.where);
    } else if (oper == "add" && there) {
        throw failure("The deployment holds " + to_text(given.where) + " already.");
    } else {
        put(changed, given.where, given.nodes);
    }
    refuse_excess(changed, given.where);
    deployment_ = std::move(changed);
}

void configuration::copy_running_to_deployment(bool replace)
{
    if (replace) {
        deployment_ = running_;
        return;
    }
    node changed = deployment_;
    add_missing(changed, running_);
    refuse_excess(changed, {});
    deployment_ = std::move(changed);
}

} // namespace confsim
