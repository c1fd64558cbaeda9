// See tree.h.
#include "tree.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

namespace confsim {

namespace {

bool is_usual_key(const node &child)
{
    constexpr std::array<std::string_view, 4> names = {"name", "id", "key", "index"};
    return child.is_leaf() && std::find(names.begin(), names.end(), child.name) != names.end();
}

bool is_named(const node &child, const step &wanted)
{
    return child.name == wanted.name && child.module == wanted.module;
}

// The predicate of an entry, or none when the node is no list entry.
std::vector<predicate> key_of(const node &entry, bool several, std::size_t position)
{
    if (!entry.children.empty() && is_usual_key(entry.children.front())) {
        return {{entry.children.front().name, entry.children.front().text}};
    }
    if (!several) {
        return {};
    }
    if (entry.is_leaf()) {
        return {{".", entry.text}};
    }
    auto key = std::find_if(entry.children.begin(), entry.children.end(), is_usual_key);
    if (key == entry.children.end()) {
        key = std::find_if(entry.children.begin(), entry.children.end(),
                           [](const node &child) { return child.is_leaf(); });
    }
    if (key == entry.children.end()) {
        return {{"", std::to_string(position)}};
    }
    return {{key->name, key->text}};
}

bool matches(const node &candidate, std::size_t position, const predicate &key)
{
    if (key.name.empty()) {
        return key.value == std::to_string(position);
    }
    if (key.name == ".") {
        return candidate.is_leaf() && candidate.text == key.value;
    }
    return std::any_of(
        candidate.children.begin(), candidate.children.end(), [&key](const node &child) {
            return child.is_leaf() && child.name == key.name && child.text == key.value;
        });
}

// The indices of the children that a step leads to.
std::vector<std::size_t> matching(const node &parent, const step &wanted)
{
    std::vector<std::size_t> found;
    std::size_t position = 0;
    for (std::size_t i = 0; i < parent.children.size(); ++i) {
        const node &child = parent.children[i];
        if (!is_named(child, wanted)) {
            continue;
        }
        ++position;
        if (std::all_of(wanted.keys.begin(), wanted.keys.end(),
                        [&](const predicate &key) { return matches(child, position, key); })) {
            found.push_back(i);
        }
    }
    return found;
}

node made_for(const step &wanted)
{
    node made{wanted.module, wanted.name, "", {}};
    for (const predicate &key : wanted.keys) {
        if (key.name.empty()) {
            throw failure("there is no " + to_text({wanted}) + " to change");
        }
        if (key.name == ".") {
            made.text = key.value;
        } else {
            made.children.push_back({wanted.module, key.name, key.value, {}});
        }
    }
    return made;
}

void find_below(const node &parent, const path &where, std::size_t depth,
                std::vector<const node *> &found)
{
    for (const std::size_t i : matching(parent, where[depth])) {
        if (depth + 1 == where.size()) {
            found.push_back(&parent.children[i]);
        } else {
            find_below(parent.children[i], where, depth + 1, found);
        }
    }
}

std::size_t remove_below(node &parent, const path &where, std::size_t depth)
{
    const std::vector<std::size_t> found = matching(parent, where[depth]);
    std::size_t removed = 0;
    for (auto index = found.rbegin(); index != found.rend(); ++index) {
        node &child = parent.children[*index];
        const std::size_t below =
            depth + 1 == where.size() ? 1 : remove_below(child, where, depth + 1);
        removed += below;
        if (depth + 1 == where.size() || (below > 0 && child.children.empty())) {
            parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(*index));
        }
    }
    return removed;
}

const xmlChar *chars(const std::string &text)
{
    return reinterpret_cast<const xmlChar *>(text.c_str());
}

// An empty URI takes back the default namespace of the node above, if there is one.
void set_namespace(xmlNode *element, const std::string &uri, bool outer)
{
    if (!uri.empty() || outer) {
        xmlSetNs(element, xmlNewNs(element, chars(uri), nullptr));
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
            set_namespace(place, modules.uri_of(child.module), element->ns != nullptr);
        }
        to_xml_below(child, place, modules);
    }
    if (!tree.text.empty() && tree.is_leaf()) {
        xmlAddChild(element, xmlNewText(chars(tree.text)));
    }
}

} // namespace

const std::string &module_table::name_of(const xmlNs *space)
{
    const std::string uri = reinterpret_cast<const char *>(space->href);
    auto known = names_.find(uri);
    if (known == names_.end()) {
        const std::string name = space->prefix != nullptr
                                     ? reinterpret_cast<const char *>(space->prefix)
                                     : uri.substr(uri.find_last_of(":/#") + 1);
        known = names_.emplace(uri, name).first;
        uris_[name] = uri;
    }
    return known->second;
}

const std::string &module_table::uri_of(const std::string &module)
{
    return uris_.try_emplace(module, "urn:" + module).first->second;
}

node from_xml(const xmlNode *element, const std::string &outer_module, module_table &modules)
{
    node made{"", xml::name(element), "", {}};
    if (element->ns != nullptr && element->ns->href != nullptr && *element->ns->href != 0) {
        made.module = modules.name_of(element->ns);
    } else if (outer_module.empty()) {
        made.module = made.name;
        modules.add_without_namespace(made.module);
    } else {
        made.module = outer_module;
    }
    for (const xmlNode *child = xml::first_element(element); child != nullptr;
         child = xml::next_element(child)) {
        made.children.push_back(from_xml(child, made.module, modules));
    }
    if (made.is_leaf()) {
        made.text = xml::text(element);
    }
    return made;
}

xml::node_ptr to_xml(const node &tree, module_table &modules)
{
    xml::node_ptr element = xml::element(tree.name.c_str());
    if (!tree.module.empty()) {
        set_namespace(element.get(), modules.uri_of(tree.module), false);
    }
    to_xml_below(tree, element.get(), modules);
    return element;
}

std::vector<step> steps_of(const std::vector<node> &siblings, const std::vector<node> &others)
{
    using full_name = std::pair<std::string_view, std::string_view>;
    std::map<full_name, std::size_t> counts;
    std::map<full_name, std::size_t> other_counts;
    for (const node &each : siblings) {
        ++counts[{each.module, each.name}];
    }
    for (const node &each : others) {
        ++other_counts[{each.module, each.name}];
    }
    std::map<full_name, std::size_t> positions;
    std::vector<step> steps;
    for (const node &each : siblings) {
        const full_name name = {each.module, each.name};
        const bool several = counts[name] > 1 || other_counts[name] > 1;
        steps.push_back({each.module, each.name, key_of(each, several, ++positions[name])});
    }
    return steps;
}

std::vector<const node *> find(const node &top, const path &where)
{
    std::vector<const node *> found;
    find_below(top, where, 0, found);
    return found;
}

void set(node &top, const path &where, const std::string &text)
{
    node changed = top; // only a complete change is kept
    node *place = &changed;
    for (const step &each : where) {
        const std::vector<std::size_t> found = matching(*place, each);
        if (found.size() > 1) {
            throw failure(to_text(where) + " is ambiguous: there are " +
                          std::to_string(found.size()) + " nodes called " + each.name);
        }
        if (found.empty()) {
            if (place != &changed && place->is_leaf() && !place->text.empty()) {
                throw failure(to_text(where) + ": " + place->name + " is a leaf");
            }
            place->children.push_back(made_for(each));
            place = &place->children.back();
        } else {
            place = &place->children[found.front()];
        }
    }
    if (!text.empty() && !place->is_leaf()) {
        throw failure(to_text(where) + " is not a leaf");
    }
    if (!text.empty()) {
        place->text = text;
    }
    top = std::move(changed);
}

std::size_t remove(node &top, const path &where)
{
    return remove_below(top, where, 0);
}

void refuse_duplicates(const node &top, const path &where)
{
    std::set<std::string> seen;
    const std::vector<step> steps = steps_of(top.children, {});
    for (std::size_t i = 0; i < steps.size(); ++i) {
        path here = where;
        here.push_back(steps[i]);
        if (!seen.insert(to_text({steps[i]})).second) {
            throw failure("there is more than one " + to_text(here));
        }
        refuse_duplicates(top.children[i], here);
    }
}

} // namespace confsim
