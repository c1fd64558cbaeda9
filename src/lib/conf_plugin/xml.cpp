// See xml.h for the contract; this file knows how libxml2 fails.
#include "xml.h"

#include "support/bounded.h"

#include <libxml/dict.h>
#include <libxml/parser.h>

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

void free_document(xmlDoc *document)
{
    clean_xml_content(xmlDocGetRootElement(document));
    xmlFreeDoc(document);
}

using document_owner = std::unique_ptr<xmlDoc, support::released_by<free_document>>;

// Whether nodes of the document point to what dies with it: shared strings, declared entities and
// attribute types, or the namespace of the prefix "xml".
bool owns_what_nodes_use(const xmlDoc *document)
{
    return document->dict != nullptr || document->intSubset != nullptr ||
           document->extSubset != nullptr || document->oldNs != nullptr;
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

// Takes the root element out of its document: detached where nobody can see the difference, since
// a copy of a large tree costs more than parsing it.
xmlNode *take_root(xmlDoc *document)
{
    xmlNode *root = xmlDocGetRootElement(document);
    if (root == nullptr || owns_what_nodes_use(document)) {
        return copy_node(root);
    }
    xmlUnlinkNode(root);
    xmlSetTreeDoc(root, nullptr);
    return root;
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
    const xmlNode *const top = node == nullptr ? nullptr : node->parent;
    while (node != nullptr) {
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

bool is_element(const xmlNode *node, const char *name)
{
    return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, chars(name)) == 1;
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
    return add_text(parent, name, text);
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
    if (watch.out_of_memory()) { // strings of another document could not be taken along
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

// The buffer begins without memory of its own: when libxml2 fails to grow it, it frees that memory
// and leaves the pointer to it behind. So after a failure the pointer is dropped unread.
node_text::node_text(xmlNode *node) : buffer_(nullptr), result_(outcome::no_buffer)
{
    const libxml_watch watch;
    buffer_ = xmlBufferCreateSize(0);
    if (buffer_ == nullptr) {
        return;
    }
    xmlBufferSetAllocationScheme(buffer_, XML_BUFFER_ALLOC_DOUBLEIT);
    const int written = xmlNodeDump(buffer_, nullptr, node, 0, 0);
    if (written <= 0 || watch.out_of_memory()) {
        buffer_->content = nullptr;
        buffer_->use = 0;
        buffer_->size = 0;
        result_ = outcome::not_dumped;
        return;
    }
    result_ = xmlBufferContent(buffer_) == nullptr ? outcome::no_content : outcome::made;
}

node_text::~node_text()
{
    if (buffer_ != nullptr) {
        if (result_ == outcome::made) {
            support::wipe(buffer_->content, buffer_->use);
        }
        xmlBufferFree(buffer_);
    }
}

std::span<const char> node_text::text() const
{
    return {reinterpret_cast<const char *>(xmlBufferContent(buffer_)),
            static_cast<std::size_t>(xmlBufferLength(buffer_))};
}

parse_result parse_body(std::span<const char> body)
{
    const libxml_watch watch;
    // Without a dictionary every string belongs to its node, so the tree can leave the document.
    // The encoding is always UTF-8, whatever the body declares: naming it here would make libxml2
    // convert the body into itself, and crash when memory for that runs out.
    const document_owner document(xmlReadMemory(
        body.data(), static_cast<int>(body.size()), nullptr, nullptr,
        XML_PARSE_NOBLANKS | XML_PARSE_NODICT | XML_PARSE_NONET | XML_PARSE_IGNORE_ENC));
    if (!document || watch.out_of_memory()) {
        return {nullptr, false};
    }
    xmlNode *root = take_root(document.get());
    return {root, root == nullptr};
}
