// Whether what plugins send is what the model says: empty texts when it is, or without a model.
#ifndef CONFSIM_MODEL_CHECKS_H
#define CONFSIM_MODEL_CHECKS_H

#include "store/configuration.h"

#include <string>

namespace confsim {

// An operation of any form of name; the input or output are the children of `values`. What the
// model has no operation for, and an action inside of a list, whose entry the name does not tell,
// breaks nothing.
[[nodiscard]] std::string breach_of_operation(configuration &config, const std::string &name,
                                              model::message which, const xmlNode *values);

// The bare event, or one inside of a NETCONF notification.
[[nodiscard]] std::string breach_of_notification(configuration &config, const std::string &text);

// An answer for a path: the nodes of that, or of the one that the plugin published.
[[nodiscard]] std::string breach_of_status(configuration &config, const path &asked,
                                           const path &published, const xmlNode *data);

} // namespace confsim

#endif
