// The page that --help prints: what confsim is for, the forms of its command line, its options by
// purpose, examples, and what the exit status says.
#ifndef CONFSIM_HELP_PAGE_H
#define CONFSIM_HELP_PAGE_H

namespace CLI {
class App;
}

namespace confsim {

// Gives the options their places on the page, and the page its frame; for the program and for each
// of its subcommands. To be called when all options are there.
void arrange_help(CLI::App &program);

} // namespace confsim

#endif
