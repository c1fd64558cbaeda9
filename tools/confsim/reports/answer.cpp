// See answer.h.
#include "reports/answer.h"

#include <cmath>

namespace confsim {

std::string to_json(const command_answer &given)
{
    json_value line;
    line["ok"] = given.ok;
    if (!given.plugin.empty()) {
        line["plugin"] = given.plugin;
    }
    if (!given.path.empty()) {
        line["path"] = given.path;
    }
    if (given.code) {
        line["code"] = *given.code;
    }
    line["text"] = given.text;
    if (!given.data.is_null()) {
        line["data"] = given.data;
    }
    constexpr double microseconds = 1e6;
    line["seconds"] = std::round(given.duration.count() * microseconds) / microseconds;
    return line.dump(-1, ' ', false, json_value::error_handler_t::replace);
}

} // namespace confsim
