// See xml.h.
#include "tree/xml.h"

#include "failure.h"

#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlreader.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

namespace confsim::xml {

namespace {

constexpr int options =
    XML_PARSE_NOBLANKS | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

const xmlChar *chars(const char *text)
{
    return reinterpret_cast<const xmlChar *>(text);
}

template <typename Pointer>
Pointer made(Pointer pointer)
{
    if (pointer == nullptr) {
        throw std::bad_alloc();
    }
    return pointer;
}

// Some errors are printed, with a piece of the data, whatever the options say.
void begin_silently()
{
    xmlSetStructuredErrorFunc(nullptr, [](void * /*data*/, xmlErrorPtr /*error*/) {});
    xmlResetLastError();
}

[[noreturn]] void fail(const std::string &origin)
{
    const xmlError *error = xmlGetLastError();
    if (error == nullptr || error->message == nullptr) {
        throw failure(origin + ": no XML element");
    }
    std::string cause = error->message;
    while (!cause.empty() && cause.back() == '\n') {
        cause.pop_back();
    }
    throw failure(origin + (error->line > 0 ? ":" + std::to_string(error->line) : "") + ": " +
                  cause);
}

doc_ptr checked(xmlDoc *parsed, const std::string &origin)
{
    doc_ptr doc(parsed);
    if (doc != nullptr && doc->intSubset != nullptr) { // its entities would be lost
        throw failure(origin + ": a document type declaration is not supported");
    }
    if (doc == nullptr || xmlDocGetRootElement(doc.get()) == nullptr) {
        fail(origin);
    }
    return doc;
}

xmlNode *skip_to_element(xmlNode *node)
{
    while (node != nullptr && node->type != XML_ELEMENT_NODE) {
        node = node->next;
    }
    return node;
}

} // namespace

doc_ptr parse_text(const std::string &text, const std::string &origin)
{
    begin_silently();
    return checked(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, options),
        origin);
}

doc_ptr parse_file(const std::string &file)
{
    begin_silently();
    return checked(xmlReadFile(file.c_str(), nullptr, options), file);
}

void check_text(const std::string &text, const std::string &origin)
{
    struct free_reader {
        void operator()(xmlTextReader *reader) const { xmlFreeTextReader(reader); }
    };
    begin_silently();
    const std::unique_ptr<xmlTextReader, free_reader> reader(made(
        xmlReaderForMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, options)));
    int result = 0;
    while ((result = xmlTextReaderRead(reader.get())) == 1) {
    }
    if (result < 0) {
        fail(origin);
    }
}

std::size_t character_length(const std::string &text, std::size_t at)
{
    int length = static_cast<int>(std::min<std::size_t>(text.size() - at, 4));
    const int code = xmlGetUTF8Char(chars(&text[at]), &length);
    if (code < 0 || !xmlIsCharQ(code)) {
        return 0;
    }
    // It takes a byte from the middle of a character, and more bytes than are needed, for one.
    std::array<xmlChar, 8> right{};
    const int right_length = xmlCopyChar(0, right.data(), code);
    const auto taken = static_cast<std::size_t>(length);
    return length == right_length && std::memcmp(&text[at], right.data(), taken) == 0 ? taken : 0;
}

std::string printable(const std::string &text)
{
    std::string made;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = character_length(text, at);
        const std::size_t taken = std::max<std::size_t>(length, 1);
        made += length > 0 ? text.substr(at, taken) : "\ufffd";
        at += taken;
    }
    return made;
}

bool can_hold(const std::string &text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t taken = character_length(text, at);
        if (taken == 0) {
            return false;
        }
        at += taken;
    }
    return true;
}

node_ptr element(const char *name)
{
    return node_ptr(made(xmlNewNode(nullptr, chars(name))));
}

node_ptr copy(const xmlNode *node)
{
    return node_ptr(made(xmlCopyNode(const_cast<xmlNode *>(node), 1)));
}

node_ptr taken(xmlNode *node)
{
    xmlUnlinkNode(node);
    return node_ptr(node);
}

xmlNode *add(xmlNode *parent, const char *name, const std::string &text)
{
    return made(xmlNewTextChild(parent, nullptr, chars(name),
                                text.empty() ? nullptr : chars(text.c_str())));
}

void add(xmlNode *parent, node_ptr child)
{
    (void)made(xmlAddChild(parent, child.get()));
    (void)child.release();
}

const char *name(const xmlNode *node)
{
    return reinterpret_cast<const char *>(node->name);
}

xmlNode *first_element(const xmlNode *parent)
{
    return skip_to_element(parent->children);
}

xmlNode *next_element(const xmlNode *node)
{
    return skip_to_element(node->next);
}

std::vector<const xmlNode *> elements(const xmlNode *parent)
{
    std::vector<const xmlNode *> all;
    for (const xmlNode *each = first_element(parent); each != nullptr; each = next_element(each)) {
        all.push_back(each);
    }
    return all;
}

xmlNode *child(const xmlNode *parent, const char *name)
{
    xmlNode *node = first_element(parent);
    while (node != nullptr && std::strcmp(xml::name(node), name) != 0) {
        node = next_element(node);
    }
    return node;
}

std::string text(const xmlNode *node)
{
    std::string all;
    for (const xmlNode *part = node->children; part != nullptr; part = part->next) {
        if ((part->type == XML_TEXT_NODE || part->type == XML_CDATA_SECTION_NODE) &&
            part->content != nullptr) {
            all += reinterpret_cast<const char *>(part->content);
        }
    }
    return all.find_first_not_of(" \t\r\n") == std::string::npos ? "" : all;
}

std::string child_text(const xmlNode *parent, const char *name)
{
    const xmlNode *node = child(parent, name);
    return node == nullptr ? "" : text(node);
}

int child_number(const xmlNode *parent, const char *name)
{
    return static_cast<int>(std::strtol(child_text(parent, name).c_str(), nullptr, 10));
}

namespace {

// Values can hold prefixes, too, so all that are known where an element stands are declared.
void declare_known(xmlNode *made, const xmlNode *element)
{
    xmlNs **known = xmlGetNsList(element->doc, element);
    for (xmlNs **each = known; each != nullptr && *each != nullptr; ++each) {
        if ((*each)->prefix != nullptr) { // the default one is that of the element
            (void)xmlNewNs(made, (*each)->href, (*each)->prefix); // null for a second one
        }
    }
    xmlFree(known);
}

void inherit(xmlNode *element, xmlNs *space)
{
    if (element->type == XML_ELEMENT_NODE && element->ns == nullptr) {
        element->ns = space;
        for (xmlNode *each = element->children; each != nullptr; each = each->next) {
            inherit(each, space);
        }
    }
}

} // namespace

void add_inheriting(xmlNode *parent, const xmlNode *element)
{
    node_ptr made = copy(element);
    declare_known(made.get(), element);
    inherit(made.get(), parent->ns);
    add(parent, std::move(made));
}

std::string print_alone(xmlNode *element)
{
    declare_known(element, element);
    return print(element);
}

std::string print(xmlNode *node)
{
    xmlBuffer *buffer = made(xmlBufferCreate());
    const int length = xmlNodeDump(buffer, nullptr, node, 0, 1);
    std::string printed;
    if (length > 0) {
        printed.assign(reinterpret_cast<const char *>(xmlBufferContent(buffer)),
                       static_cast<std::size_t>(length));
    }
    xmlBufferFree(buffer);
    return printed;
}

} // namespace confsim::xml
