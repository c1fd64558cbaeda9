// See console.h.
#include "commands/console.h"

#include "trace/mask.h"
#include "tree/xml.h"

#include <cstdio>

namespace confsim {

void console::print(const std::string &text, tone meant) const
{
    if (masks_) {
        put(masked(text), meant);
    } else {
        put(text, meant);
    }
    record(text);
}

void console::print_command(const std::string &line) const
{
    put("> " + shown_command(line), tone::plain);
    if (recorder) {
        recorder("> " + masked_command(line));
    }
}

void console::record(const std::string &text) const
{
    if (recorder) {
        recorder(masked(text));
    }
}

void console::put(const std::string &text, tone meant) const
{
    if (before) {
        before();
    }
    if (has_colours_ && meant != tone::plain) {
        std::fputs(coloured(text, meant).c_str(), stdout);
    } else {
        std::fwrite(text.data(), 1, text.size(), stdout);
    }
    std::fputc('\n', stdout);
    std::fflush(stdout);
    if (after) {
        after();
    }
}

std::string console::shown(std::string text) const
{
    return masks_ ? masked(std::move(text)) : std::move(text);
}

std::string console::shown(xmlNode *node) const
{
    return masks_ ? masked(node) : xml::print(node);
}

std::string console::shown_notification(const std::string &text) const
{
    return masks_ ? masked_as_given(text) : text;
}

std::string console::shown_command(const std::string &line) const
{
    return masks_ ? masked_command(line) : line;
}

} // namespace confsim
