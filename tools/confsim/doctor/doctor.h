// Looks at a machine on which plugins do not find their daemon, and names what is wrong.
//
// Nothing is changed: files are only read, the client table is attached read-only and without its
// lock, and what the daemon sees is a visitor that asks what it can do (see answer.cpp).
#ifndef CONFSIM_DOCTOR_H
#define CONFSIM_DOCTOR_H

#include <iosfwd>
#include <string>
#include <vector>

namespace confsim::doctor {

// A fault, in one line each: a name that scripts can rely on, what is wrong, and the command that
// mends it.
struct finding {
    std::string name;
    std::string text;
    std::string command;
};

using findings = std::vector<finding>;

// What the checks go by, and what they learn for those that follow.
struct facts {
    std::string directory;                // of the sockets; empty: the one that the profile names
    std::string library;                  // the file of the library; empty: linked statically
    std::vector<std::string> loader_path; // directories in which the loader looks for libraries

    // Learned: who listens for plugins and for agents (0: unknown), whether an agent can connect,
    // whether the daemon was found to hang, and what is no fault but worth knowing.
    int plugin_listener = 0;
    int agent_listener = 0;
    bool agents_connect = false;
    bool is_busy = false;
    std::vector<std::string> notes;
};

// The facts about this process and this machine.
[[nodiscard]] facts facts_here(const std::string &directory);

// Makes all checks. What merely follows from a finding is not another one.
[[nodiscard]] findings examine(facts &here);

// One line for each finding and note, or one JSON object.
void print(std::ostream &out, const facts &here, const findings &found);
void print_json(std::ostream &out, const facts &here, const findings &found);

} // namespace confsim::doctor

#endif
