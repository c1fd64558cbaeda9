// See cases.h.
#include "reports/cases.h"

namespace confsim {

namespace {

constexpr std::size_t longest_log = std::size_t{64} * 1024;

} // namespace

void case_list::begin(const std::string &name)
{
    outcomes_.push_back({name, {}, "", ""});
    case_begin_ = steady_clock::now();
    goes_on_ = true;
}

void case_list::end()
{
    outcomes_.back().duration = steady_clock::now() - case_begin_;
    goes_on_ = false;
}

void case_list::fail(const std::string &position, const std::string &error)
{
    if (current().error.empty()) {
        current().position = position;
        current().error = error;
        ++failures_;
    }
}

void case_list::record(const std::string &text)
{
    std::string &log = current().log;
    log += text + '\n';
    if (log.size() > 2 * longest_log) {
        log.erase(0, log.find('\n', log.size() - longest_log) + 1);
    }
}

void case_list::close()
{
    if (goes_on_) {
        end();
    }
    if (outcomes_.empty() || !session_.error.empty() || !session_.findings.empty()) {
        session_.duration = steady_clock::now() - session_begin_;
        outcomes_.push_back(std::move(session_));
    }
}

} // namespace confsim
