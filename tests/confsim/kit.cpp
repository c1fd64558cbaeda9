// The kit for C++: each function of a session against the test plugin, with what it returns and
// throws. kit_test.py does the same in Python.
#include <confsvc_test.hpp>

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace {

using namespace confsvc::test;
using texts = std::vector<std::string>;

session served()
{
    options wanted{"good", RUNNING};
    wanted.more = {"--log"};
    wanted.log = "kit_cpp.log";
    return session({PLUGIN, "good", "log"}, wanted);
}

TEST(Kit, CarriesCommandsOut)
{
    session daemon = served();
    const std::string ann = "/test:system/user[name=\"ann\"]";
    daemon.set(ann + "/value", "7");
    EXPECT_EQ(daemon.commit().ok(), true);
    EXPECT_EQ(daemon.show(ann + "/value").xpath("/test:value"), texts{"7"});
    EXPECT_EQ(daemon.erase(ann).data(), "1");
    daemon.discard();
    daemon.load(RUNNING);
    daemon.discard();
    EXPECT_EQ(daemon.call("echo", "<a>1</a>").data(), "<a>1</a>");
    EXPECT_EQ(daemon.status("/test:journal/good").plugin(), "good");
    EXPECT_EQ(daemon.expect_message("good", "register", {"//plugin-name", "good"}).plugin(),
              "good");
    EXPECT_NE(daemon.expect_log("good runs").data(), "");
    EXPECT_THROW(daemon.validate(), failed); // there is no model
    EXPECT_THROW(daemon.move(ann, "first"), failed);
    EXPECT_FALSE(daemon.wait_notification(0, may_fail).ok());

    daemon.start("more", {"sh", "-c", "exit 3"});
    daemon.wait_exit("more", "3");
    daemon.start("lasting", {"sleep", "100"});
    daemon.signal("lasting", "KILL");
    daemon.wait_exit("lasting", "KILL");
    daemon.kickoff("good");
    daemon.close();
    std::ifstream log("kit_cpp.log");
    const std::string printed{std::istreambuf_iterator<char>(log), {}};
    EXPECT_NE(printed.find("> kickoff \"good\""), std::string::npos) << printed;
}

TEST(Kit, LetsThingsGoWrong)
{
    session daemon = served();
    daemon.set("/test:system/user[name=\"zoe\"]/value", "refuse");
    try {
        daemon.commit();
        ADD_FAILURE();
    } catch (const refused &why) {
        EXPECT_EQ(why.answer().code(), 22);
        EXPECT_EQ(why.answer().text(), "this value is refused");
    }
    daemon.discard();
    daemon.fault("good", "split 5");
    daemon.call("echo");
    daemon.chaos(1, 0);
    daemon.chaos_off();
    daemon.stop(0);
    daemon.restart(0.1);
    daemon.start("again", {PLUGIN, "again"});
    daemon.wait("again");
    daemon.kill("again");
    daemon.close();
    EXPECT_THROW(daemon.commit(), std::logic_error);
    EXPECT_THROW(session({"true"}, {"nobody", "", {}, {}, "", "", 1}), failed);
    EXPECT_THROW(session({"true"}, {"", "", {}, {}, "", "/nothing/there"}), error);
    EXPECT_THROW(session({"true"}, {"", "", {}, {}, "/nothing/there"}), error);
    EXPECT_THROW(session({"sh", "-c", "exit 3"}).close(), error);
}

} // namespace
