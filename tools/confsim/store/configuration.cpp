// See configuration.h.
#include "store/configuration.h"

#include "failure.h"

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

} // namespace

configuration::configuration(const std::string &store_directory)
    : store_(store_directory), running_(restored("running")), old_(restored("old")),
      candidate_(running_), deployment_(restored("deployment")), published_(top())
{
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

node configuration::read(const std::string &file)
{
    const xml::doc_ptr doc = xml::parse_file(file);
    const xmlNode *root = xmlDocGetRootElement(doc.get());
    const std::string_view name = xml::name(root);
    node loaded = top();
    module_table modules = modules_; // a refused file names no modules
    try {
        std::vector<node> children;
        if (name != "config" && name != "data") {
            children.push_back(from_xml(root, "", modules));
        } else if (!xml::text(root).empty()) {
            throw failure("there is a text right inside of <" + std::string(name) + ">");
        } else {
            for (const xmlNode *child = xml::first_element(root); child != nullptr;
                 child = xml::next_element(child)) {
                children.push_back(from_xml(child, "", modules));
            }
        }
        loaded.children = siblings(std::move(children));
        refuse_unreadable(loaded, {});
    } catch (const failure &error) {
        throw failure(file + ": " + error.what());
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
    const std::string text = xml::print(as_xml(tree).get());
    if (text.empty()) {
        throw failure("There is no memory to store the configuration.");
    }
    (void)xml::parse_text(text, "the configuration cannot be read back"); // as the next start does
    return text + "\n";
}

void configuration::accept()
{
    if (store_.is_open()) {
        store_.write_and_keep("running", as_file(candidate_), "old");
    }
    old_ = std::move(running_);
    running_ = candidate_;
}

std::vector<node> configuration::instances(const path &where,
                                           const std::vector<const xmlNode *> &data)
{
    std::vector<node> all;
    all.reserve(data.size());
    for (const xmlNode *each : data) {
        all.push_back(from_xml(each, where.back().module, modules_));
    }
    return all;
}

void configuration::publish(const path &where, const std::vector<const xmlNode *> &data)
{
    node changed = published_;
    put(changed, where, instances(where, data));
    refuse_excess(changed, where);
    published_ = std::move(changed);
}

void configuration::stage(const path &where, const std::string &oper,
                          const std::vector<const xmlNode *> &data)
{
    node changed = deployment_;
    const bool there = !find(changed, where).empty();
    if (oper == "delete") {
        if (!there) {
            throw failure("The deployment holds no " + to_text(where) + ".");
        }
        confsim::remove(changed, where);
    } else if (oper == "add" && there) {
        throw failure("The deployment holds " + to_text(where) + " already.");
    } else {
        put(changed, where, instances(where, data));
    }
    refuse_excess(changed, where);
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
