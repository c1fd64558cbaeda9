// Standard output as a channel for programs: what is written here, and nothing else. Whatever else
// this process and its children print there goes to standard error instead.
#ifndef CONFSIM_PROGRAM_OUTPUT_H
#define CONFSIM_PROGRAM_OUTPUT_H

#include <cstdio>
#include <memory>
#include <string>

namespace confsim {

class program_output {
public:
    // Redirects standard output, for good. Throws failure.
    program_output();

    // Throws failure when it cannot be written.
    void write(const std::string &text) const;

private:
    struct closer {
        void operator()(std::FILE *file) const { (void)std::fclose(file); }
    };

    std::unique_ptr<std::FILE, closer> stream_;
};

} // namespace confsim

#endif
