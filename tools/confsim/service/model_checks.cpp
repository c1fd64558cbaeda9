// See model_checks.h.
#include "service/model_checks.h"

#include "failure.h"

#include <algorithm>
#include <cstring>

namespace confsim {

namespace {

// The path of an operation that goes by a path, or by its bare name.
path path_of_operation(const model &known, const std::string &name)
{
    const bool is_bare = name.find_first_of(":/") == std::string::npos;
    std::string full = name;
    for (const std::string &each : known.operations()) {
        if (is_bare && each.ends_with(":" + name)) {
            full = each;
        }
    }
    try {
        return parse_path(full.starts_with('/') ? full : "/" + full);
    } catch (const failure &) {
        return {};
    }
}

} // namespace

std::string breach_of_operation(configuration &config, const std::string &name,
                                model::message which, const xmlNode *values)
{
    const model *known = config.known_model();
    if (known == nullptr) {
        return "";
    }
    const path where = path_of_operation(*known, name);
    if (!known->has_operation(where)) {
        return "";
    }
    std::vector<const xmlNode *> given = xml::elements(values);
    if (which == model::message::output && given.size() == 1 &&
        std::strcmp(xml::name(given.front()), "ok") == 0) {
        given.clear(); // what the library answers for a callback without output
    }
    try {
        known->check(which, config.as_text(where, given), config.as_text(config.running()));
    } catch (const failure &reason) {
        return std::string(which == model::message::output ? "the output of " + name + ": " : "") +
               reason.what();
    }
    return "";
}

std::string breach_of_notification(configuration &config, const std::string &text)
{
    const model *known = config.known_model();
    if (known == nullptr) {
        return "";
    }
    try {
        const xml::doc_ptr doc = xml::parse_text(text, "a notification");
        xmlNode *event = xmlDocGetRootElement(doc.get());
        if (std::strcmp(xml::name(event), "notification") == 0 &&
            xml::child(event, "eventTime") != nullptr) {
            const xml::node_ptr time = xml::taken(xml::child(event, "eventTime"));
            event = xml::first_element(event);
            if (event == nullptr || xml::next_element(event) != nullptr) {
                throw failure("it holds no event, or several");
            }
        }
        known->check(model::message::notification, xml::print_alone(event),
                     config.as_text(config.running()));
    } catch (const failure &reason) {
        return std::string("a notification: ") + reason.what();
    }
    return "";
}

std::string breach_of_status(configuration &config, const path &asked, const path &published,
                             const xmlNode *data)
{
    if (config.known_model() == nullptr || data == nullptr) {
        return "";
    }
    const std::vector<const xmlNode *> given = xml::elements(data);
    if (given.empty()) {
        return "";
    }
    const bool is_asked = xml::name(given.front()) == asked.back().name;
    const given_data read =
        config.read_given(is_asked ? asked : published, given, model::content::all);
    return read.breach.empty() ? "" : "the status of " + to_text(asked) + ": " + read.breach;
}

} // namespace confsim
