// See help_page.h. The completions of the shells read this page, too: they rely on one option to a
// line, and take FILE and DIR in it for names of files and directories.
#include "help_page.h"

#include <CLI/CLI.hpp>

#include <array>
#include <memory>
#include <sstream>
#include <string>

namespace confsim {

namespace {

constexpr std::size_t page_width = 80;
constexpr std::size_t names_width = 28;

// The groups of options, in their order. CLI11 puts what has no place into "Options".
enum class group { session, data, output, program, options, about };
constexpr std::array group_names = {"Session", "Data", "Output", "Program", "Options", "About"};

struct place {
    const char *option;
    const char *value; // what follows the option; empty: nothing
    group where;
};

constexpr std::array places = {
    place{"--script", "FILE", group::session},
    place{"--define", "NAME=VALUE", group::session},
    place{"--control", "SOCKET", group::session},
    place{"--most-plugins", "N", group::session},
    place{"--timeout", "SECONDS", group::session},
    place{"--slow", "SECONDS", group::session},
    place{"--dir", "DIR", group::session},
    place{"--config", "FILE", group::data},
    place{"--store", "DIR", group::data},
    place{"--yang", "FILE|DIR", group::data},
    place{"--yang-path", "DIR", group::data},
    place{"--feature", "MODULE:NAME", group::data},
    place{"--strict", "", group::data},
    place{"--trace", "", group::output},
    place{"--trace-file", "FILE", group::output},
    place{"--mask", "", group::output},
    place{"--json", "", group::output},
    place{"--report", "FORM:FILE", group::output},
    place{"--network", "", group::program},
    place{"--log", "", group::program},
    place{"--ignore-exit", "", group::program},
    place{"--help", "", group::about},
    place{"--version", "", group::about},
};

struct frame {
    const char *program; // empty: confsim itself
    const char *usage;
    const char *end;
};

constexpr std::array frames = {
    frame{"",
          "Usage: confsim [OPTIONS]\n"
          "       confsim run [OPTIONS] -- COMMAND [ARGUMENTS...]\n"
          "       confsim doctor [--dir DIR] [--json]\n"
          "\n"
          "confsim opens the daemon's sockets, and carries out commands from a terminal or\n"
          "a script: it edits a configuration, commits it to the plugins, and shows what\n"
          "they do. Without \"run\" it serves plugins that are started by hand. Its command\n"
          "\"help\" lists the commands.\n",
          "Examples:\n"
          "  confsim run --trace -- ./plugin\n"
          "        play with a plugin, and see every message\n"
          "  confsim run --config running.xml --script test.confsim -- ./plugin\n"
          "        test a plugin\n"
          "  confsim doctor\n"
          "        find out why plugins do not find their daemon\n"
          "\n"
          "Exit status:\n"
          "  0  all went well\n"
          "  1  a command of a script failed, COMMAND ended badly, doctor found a fault, or\n"
          "     the session could not begin; the reason is printed\n"
          "  2  the command line is wrong\n"
          "\n"
          "See also: \"confsim run --help\", \"confsim doctor --help\", and the manual\n"
          "page confsim(1)."},
    frame{"run",
          "Usage: confsim run [OPTIONS] -- COMMAND [ARGUMENTS...]\n"
          "\n"
          "COMMAND sees a /dev, /dev/shm, /var/log, /var/tmp and /mnt of its own, so no root\n"
          "is needed, nothing of the machine is touched, and any number can run at once.\n",
          "Exit status:\n"
          "  0  all went well\n"
          "  1  a command of a script failed, COMMAND ended badly or could not be started;\n"
          "     the reason is printed\n"
          "  2  the command line is wrong\n"
          "\n"
          "See also: \"confsim --help\"."},
    frame{"doctor",
          "Usage: confsim doctor [--dir DIR] [--json]\n"
          "\n"
          "Prints a line for each fault, with the command that mends it.\n",
          "Exit status:\n"
          "  0  nothing is wrong\n"
          "  1  something is\n"
          "  2  the command line is wrong\n"
          "\n"
          "See also: \"confsim --help\"."},
};

// Breaks a text at blanks, so that it fits behind the names.
std::string wrapped(std::string text)
{
    constexpr std::size_t room = page_width - names_width;
    for (std::size_t begin = 0; text.size() - begin > room;) {
        const std::size_t blank = text.rfind(' ', begin + room);
        if (blank == std::string::npos || blank <= begin) {
            break;
        }
        text[blank] = '\n';
        begin = blank + 1;
    }
    return text;
}

class page : public CLI::Formatter {
public:
    explicit page(const frame &around) : around_(around) { column_width(names_width); }

    [[nodiscard]] std::string make_help(const CLI::App *app, std::string /*name*/,
                                        CLI::AppFormatMode mode) const override
    {
        std::string made = app->get_description() + "\n\n" + around_.usage;
        for (const char *name : group_names) {
            const auto options = app->get_options([name](const CLI::Option *each) {
                return each->nonpositional() && each->get_group() == name;
            });
            made += options.empty() ? "" : make_group(name, false, options);
        }
        return made + make_subcommands(app, mode) + "\n" + around_.end + "\n";
    }
    [[nodiscard]] std::string make_option_desc(const CLI::Option *option) const override
    {
        return wrapped(option->get_description());
    }
    [[nodiscard]] std::string make_subcommand(const CLI::App *sub) const override
    {
        std::ostringstream out;
        CLI::detail::format_help(out, sub->get_name(), wrapped(sub->get_description()),
                                 names_width);
        return out.str();
    }

private:
    const frame &around_;
};

void arrange(CLI::App &app, const frame &around)
{
    for (const place &each : places) {
        CLI::Option *option = app.get_option_no_throw(each.option);
        if (option != nullptr) {
            option->group(group_names[static_cast<std::size_t>(each.where)])
                ->option_text(each.value);
        }
    }
    app.formatter(std::make_shared<page>(around));
}

} // namespace

void arrange_help(CLI::App &program)
{
    for (const frame &each : frames) {
        arrange(*each.program == '\0' ? program : *program.get_subcommand(each.program), each);
    }
}

} // namespace confsim
