// All that confsim prints, line by line, without spoiling a line that is being edited. It masks
// values that are secret in all of it, when it is told to.
#ifndef CONFSIM_CONSOLE_H
#define CONFSIM_CONSOLE_H

#include "terminal/colour.h"

#include <libxml/tree.h>

#include <functional>
#include <string>
#include <unistd.h>

namespace confsim {

class console {
public:
    // Prints a text of one or more lines.
    void print(const std::string &text, tone meant = tone::plain) const;

    // Prints a command of a script.
    void print_command(const std::string &line) const;

    // Something that happened without being asked for: a plugin came, a notification arrived.
    void event(const std::string &text, tone meant = tone::plain) const
    {
        print("* " + text, meant);
    }

    // How a text, an XML node, a notification or a command looks when it is printed.
    [[nodiscard]] std::string shown(std::string text) const;
    [[nodiscard]] std::string shown(xmlNode *node) const;
    [[nodiscard]] std::string shown_notification(const std::string &text) const;
    [[nodiscard]] std::string shown_command(const std::string &line) const;

    void mask_all() { masks_ = true; }
    [[nodiscard]] bool masks() const { return masks_; }

    // Is given each text that is printed, and those that are not, with secrets masked.
    std::function<void(const std::string &)> recorder;
    void record(const std::string &text) const;

    // Called around each text that is printed; see terminal input.
    std::function<void()> before;
    std::function<void()> after;

private:
    void put(const std::string &text, tone meant) const;

    bool masks_ = false;
    bool has_colours_ = has_colours(STDOUT_FILENO);
};

} // namespace confsim

#endif
