// See messages.h.
#include "service/messages.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace confsim {

namespace {

constexpr std::size_t most_bytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t most_messages = 100000;

std::string as_text(const xmlNode *sent)
{
    const std::unique_ptr<xmlBuffer, decltype(&xmlBufferFree)> body(xmlBufferCreate(),
                                                                    &xmlBufferFree);
    const int length =
        body == nullptr ? -1 : xmlNodeDump(body.get(), nullptr, const_cast<xmlNode *>(sent), 0, 0);
    return length <= 0 ? std::string()
                       : std::string(reinterpret_cast<const char *>(xmlBufferContent(body.get())),
                                     static_cast<std::size_t>(length));
}

} // namespace

void message_store::add(const std::string &plugin, const std::string &method, const xmlNode *sent)
{
    messages_.push_back({++last_, plugin, method, as_text(sent)});
    size_ += messages_.back().text.size();
    while (size_ > most_bytes || messages_.size() > most_messages) {
        size_ -= messages_.front().text.size();
        messages_.pop_front();
    }
}

bool message_store::take(const std::string &plugin, const std::string &method,
                         const std::function<bool(const std::string &)> &fits, unsigned long &from)
{
    const unsigned long begin = std::exchange(from, last_);
    const auto found = std::find_if(messages_.begin(), messages_.end(), [&](const message &each) {
        return each.number > begin && each.plugin == plugin && each.method == method &&
               fits(each.text);
    });
    if (found == messages_.end()) {
        return false;
    }
    size_ -= found->text.size();
    messages_.erase(found);
    return true;
}

} // namespace confsim
