// The table of all stories.
#include "scenarios.h"

namespace fault {

constexpr bool documents = true;
constexpr bool tested_logs = true;

const std::vector<scenario> scenarios = {
    {"registration", registration, documents},
    {"changes", changes, documents},
    {"status_and_operations", status_and_operations, documents},
    {"reading", reading, documents},
    {"writing", writing, documents},
    {"older_interface", older_interface, documents},
    {"older_requests", older_requests, documents},
    {"notifications", notifications, documents},
    {"services", services},
    {"local_mode", local_mode},
    {"agent", agent, documents},
    {"client_table", client_table},
    {"client_table_of_another_process", client_table_of_another_process},
    {"messages", messages, documents},
    {"paths", paths},
    {"containers", containers},
    {"buffers", buffers},
    {"helpers", helpers},
    {"logs", logs, false, tested_logs},
};

} // namespace fault
