// What plugins sent, for expectations that come later. The oldest messages of very many are
// forgotten.
#ifndef CONFSIM_MESSAGES_H
#define CONFSIM_MESSAGES_H

#include "tree/xml.h"

#include <deque>
#include <functional>
#include <string>

namespace confsim {

class message_store {
public:
    void add(const std::string &plugin, const std::string &method, const xmlNode *sent);

    // Takes out the oldest message of that plugin and method, as XML, that `fits` and has not been
    // looked at since `from`, a number that begins as 0 and is moved on. Returns whether there was
    // one. What `fits` throws leaves all as it was.
    bool take(const std::string &plugin, const std::string &method,
              const std::function<bool(const std::string &)> &fits, unsigned long &from);

private:
    struct message {
        unsigned long number;
        std::string plugin;
        std::string method;
        std::string text;
    };

    std::deque<message> messages_;
    std::size_t size_ = 0; // of their texts
    unsigned long last_ = 0;
};

} // namespace confsim

#endif
