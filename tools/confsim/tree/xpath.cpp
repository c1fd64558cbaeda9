// See xpath.h.
#include "tree/xpath.h"

#include "failure.h"
#include "tree/xml.h"

#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <memory>
#include <new>

namespace confsim {

namespace {

struct deleter {
    void operator()(xmlXPathContext *context) const { xmlXPathFreeContext(context); }
    void operator()(xmlXPathObject *object) const { xmlXPathFreeObject(object); }
    void operator()(xmlChar *text) const { xmlFree(text); }
};
template <typename part>
using owner = std::unique_ptr<part, deleter>;

const xmlChar *chars(const std::string &text)
{
    return reinterpret_cast<const xmlChar *>(text.c_str());
}

// Copies the element children of a node to the top of a document, which may have several there.
void copy_children(const xmlNode *from, xmlDoc *to)
{
    for (xmlNode *each = xml::first_element(from); each != nullptr;
         each = xml::next_element(each)) {
        if (each->ns == nullptr && std::string(xml::name(each)) == "config") {
            copy_children(each, to);
            continue;
        }
        xmlNode *copied = xmlDocCopyNode(each, to, 1);
        if (copied == nullptr) {
            throw std::bad_alloc();
        }
        xmlAddChild(reinterpret_cast<xmlNode *>(to), copied);
    }
}

// Takes the namespace from each node that stands in the one of the node around it, and tells the
// context the prefixes of the others.
void prefix_as_in_paths(xmlNode *parent, const xmlNs *outer, xmlXPathContext *context,
                        module_table &names)
{
    for (xmlNode *each = xml::first_element(parent); each != nullptr;
         each = xml::next_element(each)) {
        const xmlNs *own = each->ns;
        const bool changes =
            own != nullptr && (outer == nullptr || xmlStrcmp(own->href, outer->href) != 0);
        if (changes) {
            xmlXPathRegisterNs(context, chars(names.name_of(own)), own->href);
        } else {
            each->ns = nullptr;
        }
        prefix_as_in_paths(each, own, context, names);
    }
}

std::string string_of(xmlXPathObject *object)
{
    const owner<xmlChar> text(xmlXPathCastToString(object));
    return text == nullptr ? "" : reinterpret_cast<const char *>(text.get());
}

} // namespace

xpath_result evaluate_xpath(const std::string &text, const std::string &expression,
                            module_table names)
{
    const xml::doc_ptr parsed = xml::parse_text("<answer>" + text + "</answer>", "the answer");
    const xml::doc_ptr document(xmlNewDoc(chars("1.0")));
    if (document == nullptr) {
        throw std::bad_alloc();
    }
    copy_children(xmlDocGetRootElement(parsed.get()), document.get());
    const owner<xmlXPathContext> context(xmlXPathNewContext(document.get()));
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    std::string complaint;
    context->userData = &complaint;
    context->error = [](void *kept, auto *error) {
        *static_cast<std::string *>(kept) = error->message == nullptr ? "" : error->message;
    };
    prefix_as_in_paths(reinterpret_cast<xmlNode *>(document.get()), nullptr, context.get(), names);
    const owner<xmlXPathObject> found(xmlXPathEvalExpression(chars(expression), context.get()));
    if (found == nullptr) {
        throw failure(expression + ": " + complaint.substr(0, complaint.find('\n')));
    }
    xpath_result result{xmlXPathCastToBoolean(found.get()) != 0, {}};
    if (found->type != XPATH_NODESET) {
        result.values.push_back(string_of(found.get()));
    }
    for (int i = 0; i < xmlXPathNodeSetGetLength(found->nodesetval); ++i) {
        const owner<xmlChar> value(xmlXPathCastNodeToString(found->nodesetval->nodeTab[i]));
        result.values.emplace_back(reinterpret_cast<const char *>(value.get()));
    }
    return result;
}

} // namespace confsim
