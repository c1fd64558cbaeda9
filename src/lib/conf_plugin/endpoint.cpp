// Where the daemon's sockets are: reads its profile and keeps the three socket paths.
// Relies on cJSON.
#include "plugin_internal.h"
#include "support/bounded.h"
#include "support/log.h"
#include "support/owners.h"
#include "wire.h"

#include <cJSON.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

char g_conf_agent_socket[256] = "/var/tmp/confd.agent.socket";
char g_conf_plugin_socket[256] = "/var/tmp/confd.plugin.socket";
char g_conf_notifier_socket[256] = "/var/tmp/confd.notifier.socket";

namespace {

using json_owner = std::unique_ptr<cJSON, support::released_by<cJSON_Delete>>;

// The profile as a zero-terminated text in an anonymous mapping. A mapping of the file itself would
// have no terminator when the file fills whole pages, and would raise a signal when the file
// shrinks while it is read.
class profile_text {
public:
    profile_text() = default;
    ~profile_text()
    {
        if (text_ != nullptr) {
            (void)munmap(text_, size_);
        }
    }
    profile_text(const profile_text &) = delete;
    profile_text &operator=(const profile_text &) = delete;

    [[nodiscard]] bool load(int fd, off_t size)
    {
        if (size > wire::max_profile) {
            errno = EFBIG;
            return false;
        }
        const auto length = static_cast<std::size_t>(size);
        size_ = length + 1;
        void *memory =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return false;
        }
        text_ = static_cast<char *>(memory);
        return read_whole(fd, length);
    }
    [[nodiscard]] const char *get() const { return text_; }

private:
    bool read_whole(int fd, std::size_t length)
    {
        for (std::size_t done = 0; done < length;) {
            const ssize_t count = read(fd, text_ + done, length - done);
            if (count == 0) {
                break; // the file has become shorter: what is there has to do
            }
            if (count > 0) {
                done += static_cast<std::size_t>(count);
            } else if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }

    char *text_ = nullptr;
    std::size_t size_ = 0;
};

void set_path(char (&path)[256], const char *directory, const char *file)
{
    support::print_cut(path, sizeof path, "%s/%s", directory, file);
}

void use_directory(const char *directory, char **workding_dir)
{
    if (workding_dir != nullptr) {
        free(*workding_dir);
        *workding_dir = strdup(directory);
    }
    set_path(g_conf_agent_socket, directory, "confd.agent.socket");
    set_path(g_conf_plugin_socket, directory, "confd.plugin.socket");
    set_path(g_conf_notifier_socket, directory, "confd.notifier.socket");
}

} // namespace

int conf_load_config(char **workding_dir)
{
    const support::unique_fd file(open(profile_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        LOG_FILE_ERROR("Open default-confd-profile(%s) failed(%s).", profile_path,
                       std::strerror(errno));
        return -1;
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || status.st_size == 0) {
        LOG_FILE_ERROR("Confd's default-confd-profile is invalid.");
        return -1;
    }
    profile_text text;
    if (!text.load(file.get(), status.st_size)) {
        LOG_FILE_ERROR("Mapping default-confd-profile to memory failed(%s).", std::strerror(errno));
        return -1;
    }
    const json_owner profile(cJSON_Parse(text.get()));
    if (!profile) {
        LOG_FILE_ERROR("Json parse error(%s).", cJSON_GetErrorPtr());
        return -1;
    }
    const cJSON *member = cJSON_IsObject(profile.get()) ? profile->child : nullptr;
    for (; member != nullptr; member = member->next) {
        if (std::strcmp(member->string, "working-dir") == 0 && cJSON_IsString(member) &&
            member->valuestring != nullptr) {
            use_directory(member->valuestring, workding_dir);
        }
    }
    return 0;
}

sockaddr_un socket_address(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    support::copy_text(address.sun_path, sizeof address.sun_path, path);
    return address;
}
