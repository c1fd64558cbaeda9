// See configuration.h.
#include "configuration.h"

#include "failure.h"

#include <string_view>

namespace confsim {

const node &configuration::seen_by_plugins(bool old) const
{
    return committing_ && !old ? candidate_ : running_;
}

void configuration::load(const std::string &file)
{
    const xml::doc_ptr doc = xml::parse_file(file);
    const xmlNode *root = xmlDocGetRootElement(doc.get());
    const std::string_view name = xml::name(root);
    node loaded = top();
    if (name != "config" && name != "data") {
        loaded.children.push_back(from_xml(root, "", modules_));
    } else {
        for (const xmlNode *child = xml::first_element(root); child != nullptr;
             child = xml::next_element(child)) {
            loaded.children.push_back(from_xml(child, "", modules_));
        }
    }
    try {
        refuse_duplicates(loaded, {});
    } catch (const failure &error) {
        throw failure(file + ": " + error.what());
    }
    candidate_ = std::move(loaded);
}

} // namespace confsim
