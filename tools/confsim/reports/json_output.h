// Standard output as a channel for programs: one line of JSON for each answer, and nothing else.
// Whatever else this process and its children print there goes to standard error instead.
#ifndef CONFSIM_JSON_OUTPUT_H
#define CONFSIM_JSON_OUTPUT_H

#include "reports/answer.h"

#include <cstdio>
#include <memory>

namespace confsim {

class json_output {
public:
    // Redirects standard output, for good. Throws failure.
    json_output();

    // Throws failure when the answer cannot be written.
    void print(const command_answer &given) const;

private:
    struct closer {
        void operator()(std::FILE *file) const { (void)std::fclose(file); }
    };

    std::unique_ptr<std::FILE, closer> stream_;
};

} // namespace confsim

#endif
