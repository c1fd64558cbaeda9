// confsim's paths and trees: any path text and any XML. A path that is read is written as a text
// that leads to the same place, and a change that is refused leaves the tree as it was.
#include "failure.h"
#include "fuzz.h"
#include "tree/tree_text.h"

using namespace confsim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    module_table modules;
    node top{"", "config", "", {}};
    const auto printed = [&modules](const node &tree) {
        std::string text = to_xml_text(tree, modules);
        const std::string by_libxml2 = xml::print(to_xml(tree, modules).get());
        MUST(text == by_libxml2, text, by_libxml2);
        return text;
    };
    while (!in.ended()) {
        std::string before = printed(top);
        const std::string text = in.ConsumeBool() ? in.path() : in.text(60);
        const std::size_t what = in.below(4);
        try {
            const path where = parse_path(text);
            const std::string written = to_text(where);
            MUST(to_text(parse_path(written)) == written, text, written);
            if (what == 0) {
                set(top, where, in.ConsumeRandomLengthString(10));
            } else if (what == 1) {
                const std::size_t count = find(top, where).size();
                MUST(remove(top, where) == count, text);
            } else if (what == 2) {
                (void)find_neighbours(top, where);
            } else {
                const std::string document =
                    "<" + where.back().name + ">" + in.document() + "</" + where.back().name + ">";
                const xml::doc_ptr doc = xml::parse_text(document, "input");
                const node former = top;
                put(top, where,
                    {from_xml(xmlDocGetRootElement(doc.get()), where.back().module, modules)});
                MUST(find(top, where).size() == 1, text);
                before = printed(top);
                add_missing(top, former);
            }
        } catch (const failure &) {
            MUST(printed(top) == before, text);
        }
        refuse_unreadable(top, {}); // or fails, as the next one
        const xml::doc_ptr doc = xml::parse_text(printed(top), "tree");
    }
    return 0;
}
