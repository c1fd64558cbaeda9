// What a command that cannot be carried out throws; its text is for the user.
#ifndef CONFSIM_FAILURE_H
#define CONFSIM_FAILURE_H

#include <stdexcept>

namespace confsim {

class failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace confsim

#endif
