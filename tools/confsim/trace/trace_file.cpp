// See trace_file.h.
#include "trace/trace_file.h"

#include "failure.h"
#include "trace/pcapng.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace confsim {

namespace {

constexpr const char *kinds[] = {"request", "reply", "notification", "unreadable"};

bool ends_in(const std::string &name, std::string_view ending)
{
    return name.size() > ending.size() && name.ends_with(ending);
}

// In the form of RFC 3339, with nanoseconds.
std::string as_text(const std::timespec &time)
{
    std::tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char seconds[32];
    const std::size_t length = std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string fraction = std::to_string(1000000000 + time.tv_nsec);
    return std::string(seconds, length) + '.' + fraction.substr(1) + 'Z';
}

std::string as_json(unsigned long number, const traced_frame &frame)
{
    nlohmann::ordered_json made;
    made["frame"] = number;
    made["time"] = as_text(frame.time);
    made["direction"] = frame.is_received ? "received" : "sent";
    if (frame.head) {
        made["peer"] = frame.peer.name;
        made["connection"] = frame.peer.connection;
    }
    made["type"] = kinds[static_cast<std::size_t>(frame.type)];
    if (!frame.method.empty()) {
        made["method"] = frame.method;
    }
    if (!frame.path.empty()) {
        made["path"] = frame.path;
    }
    if (frame.id) {
        made["id"] = *frame.id;
    }
    if (frame.code) {
        made["code"] = *frame.code;
    }
    if (!frame.text.empty()) {
        made["text"] = frame.text;
    }
    made["size"] = frame.size;
    made["body"] = frame.body;
    return made.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

std::string reason(int error)
{
    return std::generic_category().message(error);
}

} // namespace

std::string trace_file::wrong_ending(const std::string &name)
{
    return ends_in(name, ".jsonl") || ends_in(name, ".pcapng")
               ? ""
               : "neither .jsonl nor .pcapng: " + name;
}

trace_file::trace_file(const std::string &name) : name_(name), is_pcapng_(ends_in(name, ".pcapng"))
{
    descriptor_ = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    struct stat found {};
    if (descriptor_ < 0 || fstat(descriptor_, &found) != 0 ||
        (S_ISREG(found.st_mode) && fchmod(descriptor_, 0600) != 0)) { // it may have been there
        const int error = errno;
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
        throw failure("cannot write " + name + ": " + reason(error));
    }
}

trace_file::~trace_file()
{
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

std::string trace_file::write(const traced_frame &frame)
{
    if (descriptor_ < 0) {
        return "";
    }
    ++frames_;
    if (!is_pcapng_) {
        return append(as_json(frames_, frame));
    }
    return append((frames_ == 1 ? pcapng::beginning() : "") + pcapng::packet(frame));
}

std::string trace_file::append(const std::string &record)
{
    for (std::size_t written = 0; written < record.size();) {
        const ssize_t count =
            ::write(descriptor_, record.data() + written, record.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const int error = count < 0 ? errno : ENOSPC;
            (void)!ftruncate(descriptor_, size_); // no half frame at the end
            close(std::exchange(descriptor_, -1));
            return "the trace in " + name_ + " ends here, the session goes on: " + reason(error);
        }
        written += static_cast<std::size_t>(count);
    }
    size_ += static_cast<off_t>(record.size());
    return "";
}

std::string trace_file::finish()
{
    if (descriptor_ < 0) {
        return "";
    }
    if (is_pcapng_ && frames_ == 0) {
        if (std::string wrong = append(pcapng::beginning()); !wrong.empty()) {
            return wrong;
        }
    }
    struct stat found {};
    const bool is_gone = fstat(descriptor_, &found) == 0 && found.st_nlink == 0;
    const int closed = close(std::exchange(descriptor_, -1));
    if (closed != 0) {
        return "the trace in " + name_ + " may lack its end: " + reason(errno);
    }
    return is_gone ? "the trace in " + name_ + " is lost: the file was removed" : "";
}

} // namespace confsim
