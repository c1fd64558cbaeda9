// The checks, and what they share. Each returns its findings.
#ifndef CONFSIM_DOCTOR_CHECKS_H
#define CONFSIM_DOCTOR_CHECKS_H

#include "doctor/doctor.h"

namespace confsim::doctor {

[[nodiscard]] findings check_profile(facts &here);
[[nodiscard]] findings check_sockets(facts &here);
[[nodiscard]] findings check_listeners(facts &here);
[[nodiscard]] findings check_answer(facts &here);
[[nodiscard]] findings check_table(facts &here);
[[nodiscard]] findings check_debug_file(facts &here);
[[nodiscard]] findings check_system_log(facts &here);
[[nodiscard]] findings check_copies(facts &here);
[[nodiscard]] findings check_processes(facts &here);

// A word as a shell takes it.
[[nodiscard]] std::string quoted(const std::string &word);

// The text of the present errno.
[[nodiscard]] std::string system_error_text();

// Whether this user may do `mode` (R_OK, W_OK, X_OK) with a file.
[[nodiscard]] bool may(const std::string &path, int mode);

// The command that gives a daemon to a directory. On a device its own daemon is restarted instead.
[[nodiscard]] std::string start_command(const std::string &directory);

// The command that makes a process (0: unknown) serve again that does not.
[[nodiscard]] std::string revival(int id, const std::string &directory);

} // namespace confsim::doctor

#endif
