// The stories; scenarios.cpp has the table of them.
#ifndef CONFSVC_FAULT_SCENARIOS_H
#define CONFSVC_FAULT_SCENARIOS_H

#include "conf_plugin/xml.h"
#include "story.h"

namespace fault {

// scenarios_plugin.cpp
void registration();
void changes();
void status_and_operations();
void reading();
void writing();
void older_interface();
void older_requests();
void notifications();

// scenarios_other.cpp
void services();
void local_mode();
void agent();
void client_table();
void client_table_of_another_process();
void messages();
void paths();
void containers();
void buffers();
void helpers();
void logs();

} // namespace fault

#endif
