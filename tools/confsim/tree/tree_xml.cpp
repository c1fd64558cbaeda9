// See tree_xml.h.
#include "tree/tree_xml.h"

#include "failure.h"

namespace confsim {

namespace {

const xmlChar *chars(const std::string &text)
{
    return reinterpret_cast<const xmlChar *>(text.c_str());
}

std::string last_part(const std::string &uri)
{
    const std::string bare = uri.substr(0, uri.find_last_not_of("/#") + 1);
    return bare.substr(bare.find_last_of(":/#") + 1);
}

// A module without a namespace takes back the default one of the node above, if there is one.
void set_namespace(xmlNode *element, const std::string &module, bool outer, module_table &modules)
{
    const std::string &uri = modules.uri_of(module);
    if (!uri.empty() || outer) {
        xmlSetNs(element, xmlNewNs(element, chars(uri),
                                   modules.needs_prefix(module) ? chars(module) : nullptr));
    }
}

void to_xml_below(const node &tree, xmlNode *element, module_table &modules)
{
    for (const node &child : tree.children) {
        xml::node_ptr made = xml::element(child.name.c_str());
        xmlNode *place = made.get();
        xml::add(element, std::move(made));
        if (child.module == tree.module) {
            xmlSetNs(place, element->ns);
        } else {
            set_namespace(place, child.module, element->ns != nullptr, modules);
        }
        to_xml_below(child, place, modules);
    }
    if (!tree.text.empty() && tree.is_leaf()) {
        if (tree.place != nullptr && tree.place->in_xml) {
            const schema_node::written value = tree.place->in_xml(tree.text);
            for (const auto &[prefix, uri] : value.prefixes) {
                (void)xmlNewNs(element, chars(uri), chars(prefix));
            }
            xmlAddChild(element, xmlNewText(chars(value.text)));
            return;
        }
        xmlAddChild(element, xmlNewText(chars(tree.text)));
    }
}

node without_children(const xmlNode *element, const std::string &outer_module,
                      module_table &modules)
{
    node made{"", xml::name(element), xml::text(element), {}};
    if (element->ns != nullptr && element->ns->href != nullptr && *element->ns->href != 0) {
        made.module = modules.name_of(element->ns);
    } else if (outer_module.empty()) {
        made.module = made.name;
        modules.add_without_namespace(made.module);
    } else {
        made.module = outer_module;
    }
    return made;
}

} // namespace

const std::string &module_table::name_of(const xmlNs *space)
{
    const std::string uri = reinterpret_cast<const char *>(space->href);
    auto known = names_.find(uri);
    if (known == names_.end()) {
        const std::string name = space->prefix != nullptr
                                     ? reinterpret_cast<const char *>(space->prefix)
                                     : last_part(uri);
        if (name.empty()) {
            throw failure("The namespace " + uri + " names no module.");
        }
        const std::string &own = uris_.try_emplace(name, uri).first->second;
        if (own != uri) {
            throw failure("The namespace of the module " + name + " is \"" + own + "\", not \"" +
                          uri + "\".");
        }
        known = names_.emplace(uri, name).first;
    }
    return known->second;
}

const std::string &module_table::uri_of(const std::string &module)
{
    return uris_.try_emplace(module, "urn:" + module).first->second;
}

void module_table::know(const std::string &module, const std::string &uri)
{
    names_[uri] = module;
    uris_[module] = uri;
    modelled_.insert(module);
}

bool module_table::needs_prefix(const std::string &module)
{
    const std::string &uri = uri_of(module);
    return !modelled_.contains(module) && !uri.empty() && last_part(uri) != module;
}

node from_xml(const xmlNode *element, const std::string &outer_module, module_table &modules)
{
    node made = without_children(element, outer_module, modules);
    std::vector<std::shared_ptr<const node>> children;
    for (const xmlNode *child = xml::first_element(element); child != nullptr;
         child = xml::next_element(child)) {
        children.push_back(std::make_shared<const node>(from_xml(child, made.module, modules)));
    }
    made.children = siblings(children);
    return made;
}

node from_xml(xml::node_ptr element, const std::string &outer_module, module_table &modules)
{
    node made = without_children(element.get(), outer_module, modules);
    std::vector<std::shared_ptr<const node>> children;
    for (xmlNode *child = xml::first_element(element.get()); child != nullptr;) {
        xmlNode *next = xml::next_element(child);
        children.push_back(
            std::make_shared<const node>(from_xml(xml::taken(child), made.module, modules)));
        child = next;
    }
    made.children = siblings(children);
    return made;
}

xml::node_ptr to_xml(const node &tree, module_table &modules)
{
    xml::node_ptr element = xml::element(tree.name.c_str());
    if (!tree.module.empty()) {
        set_namespace(element.get(), tree.module, false, modules);
    }
    to_xml_below(tree, element.get(), modules);
    return element;
}

} // namespace confsim
