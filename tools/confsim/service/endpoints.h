// The daemon's place in the file system: the directory, the profile that names it, and the three
// sockets in it. Opened by the constructor, removed by the destructor.
#ifndef CONFSIM_ENDPOINTS_H
#define CONFSIM_ENDPOINTS_H

#include <string>

namespace confsim {

// Whether a Unix stream socket of that name takes connections.
[[nodiscard]] bool somebody_listens(const std::string &path);

class endpoints {
public:
    // An empty directory name stands for a fresh one. Throws failure when something stands in the
    // way, for instance another daemon that is alive.
    explicit endpoints(const std::string &directory);
    ~endpoints();
    endpoints(const endpoints &) = delete;
    endpoints &operator=(const endpoints &) = delete;

    [[nodiscard]] const std::string &directory() const { return directory_; }
    [[nodiscard]] int plugin_socket() const { return plugin_socket_; }
    [[nodiscard]] int agent_socket() const { return agent_socket_; }
    [[nodiscard]] int notifier_socket() const { return notifier_socket_; }

    // The sockets vanish, and come back under the same names. open() throws failure.
    void close();
    void open();

    // Puts something unreadable in place of the profile, or the profile back.
    void spoil_profile();
    void write_profile();

private:
    void remove();
    void make_directory(const std::string &wanted);

    std::string directory_;
    bool made_directory_ = false;
    bool made_profile_directory_ = false;
    bool wrote_profile_ = false;
    int plugin_socket_ = -1;
    int agent_socket_ = -1;
    int notifier_socket_ = -1;
};

} // namespace confsim

#endif
