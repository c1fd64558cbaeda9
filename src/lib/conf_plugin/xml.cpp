// See xml.h for the contract; this file builds, copies and wipes trees, and knows how libxml2
// fails.
#include "xml.h"

#include "support/bounded.h"

#include <libxml/dict.h>

namespace {

#if LIBXML_VERSION >= 21200
using reported_error = const xmlError;
#else
using reported_error = xmlError;
#endif

const xmlChar *chars(const char *text)
{
    return reinterpret_cast<const xmlChar *>(text);
}

void wipe_text(xmlNode *node)
{
    const bool shared = node->doc != nullptr && node->doc->dict != nullptr &&
                        xmlDictOwns(node->doc->dict, node->content) == 1;
    if (node->content != nullptr && !shared) {
        support::wipe(node->content, static_cast<std::size_t>(xmlStrlen(node->content)));
    }
}

// The children of a reference to an entity lead into the declarations, which may lead round in a
// circle; those of a declaration are not text of the message.
bool has_own_children(const xmlNode *node)
{
    return node->children != nullptr &&
           (node->type == XML_ELEMENT_NODE || node->type == XML_DOCUMENT_FRAG_NODE ||
            node->type == XML_DOCUMENT_NODE);
}

// The same for what is no text of a message, but may hold a part of one all the same.
void wipe_rest(xmlNode *node)
{
    if (node->type == XML_CDATA_SECTION_NODE || node->type == XML_COMMENT_NODE ||
        node->type == XML_PI_NODE) {
        wipe_text(node);
    } else if (node->type == XML_ELEMENT_NODE) {
        for (const xmlAttr *attribute = node->properties; attribute != nullptr;
             attribute = attribute->next) {
            clean_xml_content(attribute->children);
        }
    }
}

void do_nothing(xmlNode * /*node*/) {}

// Wipes the texts of a list, and calls `also` for every node.
void wipe_list(xmlNode *node, void (*also)(xmlNode *))
{
    const xmlNode *const top = node == nullptr ? nullptr : node->parent;
    while (node != nullptr) {
        also(node);
        if (node->type == XML_TEXT_NODE) {
            wipe_text(node);
        } else if (has_own_children(node)) {
            node = node->children;
            continue;
        }
        while (node->next == nullptr) { // up, without recursion: depth is the sender's choice
            node = node->parent;
            if (node == top) {
                return;
            }
        }
        node = node->next;
    }
}

// Gives up a child that was made in part.
xmlNode *whole_or_null(xmlNode *child, const libxml_watch &watch)
{
    if (child != nullptr && watch.out_of_memory()) {
        xmlUnlinkNode(child);
        wipe_and_free(child);
        return nullptr;
    }
    return child;
}

const xmlChar *content_or_null(const char *text)
{
    return text == nullptr || text[0] == '\0' ? nullptr : chars(text);
}

bool declares_namespaces(const xmlNode *node)
{
    while (node != nullptr && node->nsDef == nullptr) {
        node = node->parent;
    }
    return node != nullptr;
}

// Leaves a list without a parent, and its parent without children.
xmlNode *detach_children(xmlNode *parent)
{
    xmlNode *list = parent->children;
    for (xmlNode *node = list; node != nullptr; node = node->next) {
        node->parent = nullptr;
    }
    parent->children = nullptr;
    parent->last = nullptr;
    return list;
}

} // namespace

libxml_watch::libxml_watch()
    : host_handler_(xmlStructuredError), host_context_(xmlStructuredErrorContext)
{
    xmlSetStructuredErrorFunc(this, [](void *watch, reported_error *error) {
        if (error != nullptr && error->code == XML_ERR_NO_MEMORY) {
            static_cast<libxml_watch *>(watch)->out_of_memory_ = true;
        }
    });
}

libxml_watch::~libxml_watch()
{
    xmlResetLastError(); // it may quote the text of a message
    xmlSetStructuredErrorFunc(host_context_, host_handler_);
}

void wipe_and_free(xmlNode *node)
{
    if (node != nullptr) {
        clean_xml_content(node);
        xmlFreeNode(node);
    }
}

void wipe_and_free_list(xmlNode *node)
{
    clean_xml_content(node);
    xmlFreeNodeList(node);
}

void clean_xml_content(xmlNode *node)
{
    wipe_list(node, do_nothing);
}

void clean_everything(xmlNode *node)
{
    wipe_list(node, wipe_rest);
}

bool is_element(const xmlNode *node, const char *name)
{
    return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, chars(name)) == 1;
}

xmlNode *child_element(const xmlNode *parent, const char *name)
{
    xmlNode *child = parent->children;
    while (child != nullptr && !is_element(child, name)) {
        child = child->next;
    }
    return child;
}

xmlNode *new_element(const char *name)
{
    const libxml_watch watch;
    return whole_or_null(xmlNewNode(nullptr, chars(name)), watch);
}

xmlNode *add_element(xmlNode *parent, const char *name)
{
    return add_text(parent, name, nullptr);
}

xmlNode *add_text(xmlNode *parent, const char *name, const char *text)
{
    const libxml_watch watch;
    return whole_or_null(xmlNewTextChild(parent, nullptr, chars(name), content_or_null(text)),
                         watch);
}

xmlNode *add_number(xmlNode *parent, const char *name, long long number)
{
    char text[32];
    support::print_cut(text, sizeof text, "%lld", number);
    return text[0] == '\0' ? nullptr : add_text(parent, name, text); // empty: it was not printed
}

xmlNode *add_raw(xmlNode *parent, const char *name, const char *content)
{
    const libxml_watch watch;
    return whole_or_null(xmlNewChild(parent, nullptr, chars(name), content_or_null(content)),
                         watch);
}

xmlNs *declare_namespace(xmlNode *element, const char *prefix, const char *name)
{
    const libxml_watch watch;
    xmlNs *declared = xmlNewNs(element, chars(name), prefix == nullptr ? nullptr : chars(prefix));
    return watch.out_of_memory() ? nullptr : declared; // one made in part stays the element's
}

bool set_attribute(xmlNode *element, const char *name, const char *value)
{
    const libxml_watch watch;
    return xmlNewProp(element, chars(name), chars(value)) != nullptr && !watch.out_of_memory();
}

bool add_children(xmlNode *parent, xmlNode *list)
{
    const libxml_watch watch;
    if (xmlAddChildList(parent, list) == nullptr) {
        return false;
    }
    if (watch.out_of_memory()) { // newer versions of libxml2 copy strings of a dictionary
        (void)detach_children(parent);
        return false;
    }
    return true;
}

xmlNode *take_children(xmlNode *parent)
{
    return declares_namespaces(parent) ? copy_list(parent->children) : detach_children(parent);
}

xmlNode *copy_node(xmlNode *node)
{
    const libxml_watch watch;
    return whole_or_null(xmlCopyNode(node, 1), watch);
}

xmlNode *copy_list(xmlNode *list)
{
    const libxml_watch watch;
    node_list copy(xmlDocCopyNodeList(nullptr, list));
    if (watch.out_of_memory()) {
        clean_xml_content(copy.get());
        return nullptr;
    }
    return copy.release();
}
