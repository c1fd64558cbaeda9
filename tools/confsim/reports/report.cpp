// See report.h.
#include "reports/report.h"

#include "failure.h"
#include "reports/answer.h"
#include "tree/xml.h"

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <sstream>
#include <system_error>

namespace confsim {

namespace {

std::string in_seconds(seconds given)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(6) << given.count();
    return text.str();
}

void set_attribute(xmlNode *of, const char *name, const std::string &value)
{
    xmlNewProp(of, reinterpret_cast<const xmlChar *>(name),
               reinterpret_cast<const xmlChar *>(xml::printable(value).c_str()));
}

std::string lines(const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &each : texts) {
        all += each + "\n";
    }
    return all;
}

std::string reason(const case_outcome &failed)
{
    return (failed.position.empty() ? "" : failed.position + ": ") + failed.error;
}

// A scalar of YAML, or a sequence of them, on one line.
std::string as_yaml(const json_value &text)
{
    return text.dump(-1, ' ', false, json_value::error_handler_t::replace);
}

// A description has one line, and # would begin a directive.
std::string description(std::string name)
{
    std::replace(name.begin(), name.end(), '\n', ' ');
    for (std::size_t at = 0; (at = name.find_first_of("#\\", at)) != std::string::npos; at += 2) {
        name.insert(at, 1, '\\');
    }
    return name;
}

} // namespace

std::string as_junit(const case_list &cases, const std::string &session)
{
    const std::vector<case_outcome> &all = cases.outcomes();
    const xml::node_ptr top = xml::element("testsuites");
    xmlNode *suite = xml::add(top.get(), "testsuite");
    seconds whole{};
    set_attribute(suite, "name", session);
    set_attribute(suite, "tests", std::to_string(all.size()));
    set_attribute(suite, "failures", std::to_string(cases.failures()));
    set_attribute(suite, "errors", "0");
    for (const case_outcome &each : all) {
        xmlNode *made = xml::add(suite, "testcase");
        set_attribute(made, "classname", session);
        set_attribute(made, "name", each.name);
        set_attribute(made, "time", in_seconds(each.duration));
        if (!each.error.empty()) {
            xmlNode *failed = xml::add(made, "failure", xml::printable(reason(each)));
            set_attribute(failed, "message", each.error.substr(0, each.error.find('\n')));
            set_attribute(failed, "type", "failure");
        }
        if (!each.findings.empty()) {
            xml::add(made, "system-err", xml::printable(lines(each.findings)));
        }
        xml::add(made, "system-out", xml::printable(each.log));
        whole += each.duration;
    }
    set_attribute(suite, "time", in_seconds(whole));
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + xml::print(top.get()) + "\n";
}

std::string as_tap(const case_list &cases)
{
    std::string text = "TAP version 14\n1.." + std::to_string(cases.outcomes().size()) + "\n";
    int number = 0;
    for (const case_outcome &each : cases.outcomes()) {
        text += (each.error.empty() ? "ok " : "not ok ") + std::to_string(++number) + " - " +
                description(each.name) + "\n  ---\n  seconds: " + in_seconds(each.duration) + "\n";
        if (!each.error.empty()) {
            text +=
                "  at: " + as_yaml(each.position) + "\n  message: " + as_yaml(each.error) + "\n";
        }
        if (!each.findings.empty()) {
            text += "  findings: " + as_yaml(json_value(each.findings)) + "\n";
        }
        text += "  log: " + as_yaml(each.log) + "\n  ...\n";
    }
    return text;
}

report::report(const std::string &wanted)
{
    const std::size_t colon = wanted.find(':');
    form_ = wanted.substr(0, colon);
    file_ = colon == std::string::npos ? "" : wanted.substr(colon + 1);
    if ((form_ != "junit" && form_ != "tap") || file_.empty()) {
        throw failure("not a report: " + wanted + "; it is junit:FILE, tap:FILE or tap:-");
    }
    if (form_ == "tap" && file_ == "-") {
        standard_output_.emplace();
        return;
    }
    stream_.reset(std::fopen(file_.c_str(), "we"));
    if (stream_ == nullptr) {
        throw failure("cannot write " + file_ + ": " + std::generic_category().message(errno));
    }
}

void report::write(const case_list &cases, const std::string &session) const
{
    const std::string text = form_ == "junit" ? as_junit(cases, session) : as_tap(cases);
    if (standard_output_) {
        standard_output_->write(text);
    } else if (std::fwrite(text.data(), 1, text.size(), stream_.get()) != text.size() ||
               std::fflush(stream_.get()) != 0) {
        throw failure("cannot write all of " + file_);
    }
}

} // namespace confsim
