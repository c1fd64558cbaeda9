// A plugin that keeps the accounts of a device: name, role and hashed password of each user.
//
//     users-plugin FILE
//
// FILE is what logs people in: a line NAME:HASH:ROLE for each user. It outlives the daemon and the
// plugin, so a user who is deleted while one of them is away would stay in it. That is what
// joined() is for: it replaces all accounts by what the daemon has, be that nothing.
#include <confsvc.hpp>

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr const char *all_users = "/demo-users:users";
constexpr const char *one_user = "/demo-users:users/user";

enum class role { guest, operating, admin };
constexpr const char *role_names[] = {"guest", "operator", "admin"};

struct account {
    confsvc::secret hash;
    role rights = role::guest;
};
using accounts = std::map<std::string, account, std::less<>>;

void report(std::string_view where, std::string_view what)
{
    std::cerr << "users: " << where << ": " << what << '\n';
}

void check_name(std::string_view name)
{
    if (name.empty() || name.size() > 32 || name.find_first_of(":\n") != std::string_view::npos) {
        throw confsvc::refusal(EINVAL, "a user name has 1 to 32 characters, without colon");
    }
}

// Reads one user as configured; whatever is wrong with it is a refusal.
account read_account(const confsvc::node &user)
{
    const std::string_view hash = user.at("password").as_text();
    if (hash.size() < 4 || hash[0] != '$' || hash.find_first_of(":\n") != std::string_view::npos) {
        throw confsvc::refusal(EINVAL, "a password is configured as a hash"); // without showing it
    }
    return {confsvc::secret(hash),
            user.choice<role>("role", {"guest", "operator", "admin"}).value_or(role::guest)};
}

// The file is replaced as a whole. Hashes go into it from where they are, without a copy.
void save(const accounts &all, const std::string &file)
{
    const std::string fresh = file + ".new";
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool saved = fd >= 0;
    for (const auto &[name, account] : all) {
        const std::string rest =
            std::string(":") + role_names[static_cast<std::size_t>(account.rights)] + '\n';
        const std::string_view parts[] = {name, ":", account.hash.view(), rest};
        iovec bytes[std::size(parts)];
        ssize_t wanted = 0;
        for (std::size_t i = 0; i < std::size(parts); ++i) {
            bytes[i] = {const_cast<char *>(parts[i].data()), parts[i].size()};
            wanted += static_cast<ssize_t>(parts[i].size());
        }
        saved = saved && writev(fd, bytes, std::size(parts)) == wanted;
    }
    saved = saved && fsync(fd) == 0;
    if (fd >= 0) {
        saved = close(fd) == 0 && saved;
    }
    if (!saved || std::rename(fresh.c_str(), file.c_str()) != 0) {
        throw confsvc::error(EIO, "the accounts cannot be written to " + file);
    }
}

class users {
public:
    explicit users(std::string file) : file_(std::move(file)) {}

    // All that there is, after each joining. Nobody could refuse a user while the plugin was away:
    // one that is wrong has no account, and the others keep theirs.
    void replace()
    {
        accounts configured;
        const confsvc::elements list = confsvc::pull(all_users);
        for (const confsvc::node user : list->children("user")) {
            try {
                const std::string name(user.at("name").as_text());
                check_name(name);
                configured[name] = read_account(user);
            } catch (const confsvc::refusal &why) {
                report("a user is left out", why.what());
            }
        }
        keep(std::move(configured));
    }

    // What a change makes of the accounts comes into force when it is saved, or not at all.
    void apply(const confsvc::change &change)
    {
        const std::string name = change.key("name", "user");
        check_name(name);
        accounts changed = accounts_;
        if (change.removed()) {
            changed.erase(name);
        } else {
            const confsvc::elements values = change.values();
            changed[name] = read_account(*values);
        }
        keep(std::move(changed));
    }

    void describe(confsvc::output &out) const
    {
        confsvc::element list = out.open("accounts").declare("urn:demo-users");
        for (const auto &[name, account] : accounts_) {
            const auto rights = static_cast<std::size_t>(account.rights);
            list.open("account").add("name", name).add("role", role_names[rights]);
        }
    }

private:
    void keep(accounts changed)
    {
        save(changed, file_);
        accounts_ = std::move(changed);
    }

    std::string file_;
    accounts accounts_;
};

} // namespace

int main(int count, char **arguments)
{
    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " FILE\n";
        return 2;
    }
    try {
        users known(arguments[1]);
        confsvc::plugin plugin("users");
        plugin.on_joined([&] { known.replace(); })
            .on_change(one_user, [&](const confsvc::change &change) { known.apply(change); })
            .on_status("/demo-users:accounts",
                       [&](const confsvc::query &, confsvc::output &out) { known.describe(out); })
            .on_failure(report);
        plugin.run();
        return 0;
    } catch (const std::exception &why) {
        report("ended", why.what());
        return 1;
    }
}
