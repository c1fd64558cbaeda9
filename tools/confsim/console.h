// All that confsim prints, line by line, without spoiling a line that is being edited.
#ifndef CONFSIM_CONSOLE_H
#define CONFSIM_CONSOLE_H

#include <functional>
#include <string>

namespace confsim {

class console {
public:
    // Prints a text of one or more lines.
    void print(const std::string &text) const;

    // Something that happened without being asked for: a plugin came, a notification arrived.
    void event(const std::string &text) const { print("* " + text); }

    // Called around each text; see terminal input.
    std::function<void()> before;
    std::function<void()> after;
};

} // namespace confsim

#endif
