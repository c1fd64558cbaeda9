// See store.h.
#include "store/store.h"

#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confsim {

namespace {

constexpr const char *ending = ".xml";
constexpr const char *fresh = ".new"; // a file that has not taken its name yet

bool write_all(int descriptor, const std::string &text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(descriptor, text.data() + written, text.size() - written);
        if (count < 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

store::store(const std::string &directory) : directory_(directory)
{
    if (directory_.empty()) {
        return;
    }
    (void)mkdir(directory_.c_str(), 0700); // the open says what is wrong
    descriptor_ = open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor_ < 0) {
        throw failure("cannot open the directory " + directory_ + ": " + std::strerror(errno));
    }
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        close(descriptor_);
        throw failure("another confsim works with " + directory_);
    }
}

store::~store()
{
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

std::string store::file_of(const std::string &name) const
{
    const bool there =
        descriptor_ >= 0 && faccessat(descriptor_, (name + ending).c_str(), F_OK, 0) == 0;
    return there ? directory_ + "/" + name + ending : "";
}

void store::write(const std::string &name, const std::string &text) const
{
    if (descriptor_ >= 0) {
        const std::string file = name + ending;
        prepare(file, text);
        if (!rename(file + fresh, file)) {
            fail(file, errno);
        }
    }
}

void store::write_and_keep(const std::string &name, const std::string &text,
                           const std::string &name_of_former) const
{
    if (descriptor_ < 0) {
        return;
    }
    const std::string file = name + ending;
    const std::string former = name_of_former + ending;
    prepare(file, text); // what needs room comes first
    (void)unlinkat(descriptor_, (former + fresh).c_str(), 0);
    const bool linked =
        linkat(descriptor_, file.c_str(), descriptor_, (former + fresh).c_str(), 0) == 0;
    if (!(linked ? rename(former + fresh, former) : errno == ENOENT) ||
        !rename(file + fresh, file)) {
        fail(file, errno);
    }
}

// Brings the text to the disk, beside the file.
void store::prepare(const std::string &file, const std::string &text) const
{
    const int descriptor =
        openat(descriptor_, (file + fresh).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool complete = descriptor >= 0 && write_all(descriptor, text) && fsync(descriptor) == 0;
    const int error = errno;
    if (descriptor >= 0) {
        close(descriptor);
    }
    if (!complete) {
        fail(file, error);
    }
}

bool store::rename(const std::string &from, const std::string &to) const
{
    return renameat(descriptor_, from.c_str(), descriptor_, to.c_str()) == 0 &&
           fsync(descriptor_) == 0;
}

void store::fail(const std::string &file, int error) const
{
    (void)unlinkat(descriptor_, (file + fresh).c_str(), 0);
    throw failure("cannot write " + directory_ + "/" + file + ": " + std::strerror(error));
}

} // namespace confsim
