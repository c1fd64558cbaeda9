// The plugin of accounts, tested in C++. $USERS_PLUGIN is the program, $USERS_CONFIG its users at the
// start, and $CONFSIM the daemon that serves it.
#include <confsvc_test.hpp>

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

using namespace confsvc::test;
using texts = std::vector<std::string>;

class Users : public testing::Test {
protected:
    ~Users() override { std::filesystem::remove_all(directory_); }

    void TearDown() override
    {
        daemon.kickoff("users");
        daemon.close();
    }

    texts role_of(const std::string &name)
    {
        return daemon.status("/demo-users:accounts")
            .xpath("/demo-users:accounts/account[name='" + name + "']/role");
    }

    static std::string make_directory()
    {
        std::string name = std::filesystem::temp_directory_path() / "users_test.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no directory for the accounts");
        }
        return name;
    }

    std::string directory_ = make_directory();
    session daemon{{std::getenv("USERS_PLUGIN"), directory_ + "/accounts"},
                   {"users", std::getenv("USERS_CONFIG")}};
};

TEST_F(Users, HaveAccountsAtTheStart)
{
    EXPECT_EQ(role_of("ann"), texts{"admin"});
    EXPECT_EQ(role_of("bob"), texts{"guest"});
}

TEST_F(Users, AreAddedChangedAndDeleted)
{
    const std::string eve = "/demo-users:users/user[name='eve']";
    daemon.set(eve + "/password", "$6$salt$third-hash");
    daemon.commit();
    daemon.set(eve + "/role", "operator");
    daemon.commit();
    EXPECT_EQ(role_of("eve"), texts{"operator"});
    daemon.erase(eve);
    daemon.commit();
    EXPECT_EQ(role_of("eve"), texts{});
}

TEST_F(Users, WithoutAHashAreRefused)
{
    daemon.set("/demo-users:users/user[name='mallory']/password", "plain-text");
    const result refusal = daemon.commit(may_fail);
    EXPECT_FALSE(refusal.ok());
    EXPECT_EQ(refusal.code(), EINVAL);
    EXPECT_EQ(refusal.text(), "a password is configured as a hash");
    daemon.discard();
}

TEST_F(Users, OutliveTheirDaemon)
{
    daemon.restart();
    daemon.wait("users");
    EXPECT_EQ(role_of("bob"), texts{"guest"});
}

} // namespace
