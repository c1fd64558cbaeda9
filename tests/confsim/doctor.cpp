// Faults made on purpose beside a confsim that runs: each is named by exactly one finding, and the
// command of the finding mends it.
#include "doctor/doctor.h"
#include "client_table.h"
#include "conf_plugin.h"
#include "test_support.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <linux/capability.h>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>

namespace {

namespace fs = std::filesystem;
namespace doctor = confsim::doctor;

const std::string place = "/var/tmp/doctor";
const std::string profile = "/dev/shm/yang_modules/confd.conf";
const std::string plugin_socket = place + "/confd.plugin.socket";
const std::string agent_socket = place + "/confd.agent.socket";
const std::string debug_file = "/var/log/conf_plugin.log";
const std::string copies = "/var/tmp/copies";

void write_file(const std::string &name, const std::string &text)
{
    std::ofstream(name) << text;
}

std::string read_file(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void save_record_of(pid_t process)
{
    conf_cli_info_t record{};
    record.sshd_pid = process;
    (void)conf_save_client_info(&record);
}

// Files and objects are as closed to this process as to any user, while it looks `as_user`.
doctor::findings look(doctor::facts here, bool as_user = false)
{
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> before{};
    syscall(SYS_capget, &head, before.data());
    std::array<__user_cap_data_struct, 2> present = before;
    if (as_user) {
        present[0].effective = present[1].effective = 0;
    }
    syscall(SYS_capset, &head, present.data());
    doctor::findings found = doctor::examine(here);
    syscall(SYS_capset, &head, before.data());
    return found;
}

struct DoctorTest;

struct fault {
    const char *name; // of the only finding
    std::function<void(DoctorTest &stage)> make;
    bool as_user = false; // seen without privileges
};

void PrintTo(const fault &each, std::ostream *out)
{
    *out << each.name;
}

// A confsim in a directory of its own, and all that a sound machine has.
struct DoctorTest : ::testing::TestWithParam<fault> {
    void SetUp() override
    {
        fs::remove_all("/dev/shm/yang_modules");
        test::make_key_file();
        fs::create_directory(copies);
        write_file(debug_file, "2026-01-01 00:00:00[ERROR] - text\r\n");
        chmod(debug_file.c_str(), 0640);
        (void)conf_clishm_create(2);
        save_record_of(getpid());
        here.library = LIBRARY;
        here.loader_path = {copies, fs::path(LIBRARY).parent_path()};
        start(place);
    }
    void TearDown() override
    {
        close(held);
        for (const pid_t each : daemons) {
            kill(each, SIGKILL);
            waitpid(each, nullptr, 0);
        }
        for (const auto &[address, size] : mapped) {
            munmap(address, size);
        }
        conf_clishm_destroy();
        if (fs::exists("/dev/log.kept")) {
            fs::rename("/dev/log.kept", "/dev/log");
        }
        chmod("/dev/log", 0666);
        for (const std::string &each : {place, place + ".2", copies, debug_file}) {
            fs::remove_all(each);
        }
    }

    // Starts a daemon, and waits until it has opened its last socket.
    void start(const std::string &directory, const std::function<int()> &daemon)
    {
        const std::string last = directory + "/confd.notifier.socket";
        fs::remove(last);
        daemons.push_back(test::start_process(daemon));
        while (!fs::exists(last) && waitpid(daemons.back(), nullptr, WNOHANG) == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    void start(const std::string &directory)
    {
        (void)test::take_system_log(); // full, it would block
        start(directory, [&directory] {
            int ends[2]; // nothing is ever written, so it waits for commands
            (void)!pipe(ends);
            dup2(ends[0], STDIN_FILENO);
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            return execl(CONFSIM, CONFSIM, "--dir", directory.c_str(), nullptr);
        });
    }
    // Another one that the first does not know of.
    void start_second(const std::string &directory)
    {
        fs::rename(profile, profile + ".kept");
        start(directory);
        fs::rename(profile + ".kept", profile);
    }
    void stop() const
    {
        kill(daemons[0], SIGSTOP);
        waitpid(daemons[0], nullptr, WUNTRACED);
    }
    void die() const
    {
        kill(daemons[0], SIGKILL);
        waitpid(daemons[0], nullptr, 0);
    }

    // Has this process load a copy of the library, as far as others can see.
    void load(const std::string &file, const std::string &added = "")
    {
        const std::string content = read_file(LIBRARY) + added;
        write_file(file, content);
        const int descriptor = open(file.c_str(), O_RDONLY);
        mapped.emplace_back(mmap(nullptr, content.size(), PROT_READ, MAP_PRIVATE, descriptor, 0),
                            content.size());
        close(descriptor);
    }

    // Does what a command says, but starts confsim as above.
    void carry_out(const std::string &command)
    {
        const std::string starting = "confsim --dir ";
        const std::size_t begin = std::min(command.find(starting), command.size());
        const std::string script = "sudo() { \"$@\"; }; ldconfig() { :; }; sleep() { :; }; " +
                                   command.substr(0, begin) + (begin == command.size() ? "" : ":");
        ASSERT_EQ(std::system(("{ " + script + "; } >/dev/null").c_str()), 0) << command;
        close(held);
        held = -1;
        for (const pid_t each : daemons) {
            const bool is_killed = command.find(" " + std::to_string(each)) < begin;
            waitpid(each, nullptr, is_killed && !command.starts_with("kill -CONT") ? 0 : WNOHANG);
        }
        if (begin < command.size()) {
            start(command.substr(begin + starting.size()));
        }
    }

    doctor::facts here;
    std::vector<pid_t> daemons;
    int held = -1; // a socket that is in the way
    std::vector<std::pair<void *, std::size_t>> mapped;
};

std::string names_of(const doctor::findings &found)
{
    std::string names;
    for (const doctor::finding &each : found) {
        names += (names.empty() ? "" : " ") + each.name;
    }
    return names;
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// Has a new socket take a place in the file system.
int bind_at(const std::string &path, int type)
{
    fs::remove(path);
    const sockaddr_un address = address_of(path);
    const int made = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    (void)bind(made, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    return made;
}

void set_capacity(u32_t capacity)
{
    void *address = shmat(test::segment(), nullptr, 0);
    std::memcpy(address, &capacity, sizeof capacity);
    shmdt(address);
}

void fill_queue_of_plugins()
{
    const sockaddr_un address = address_of(plugin_socket);
    while (connect(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0),
                   reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
    } // they end with the process of the test
}

// Another program in the place of the daemon answers each agent with a word, and hangs up.
void pretend(DoctorTest &stage, std::string_view word)
{
    stage.die();
    stage.start(place, [word]() -> int {
        const int agents = bind_at(agent_socket, SOCK_STREAM);
        (void)listen(bind_at(plugin_socket, SOCK_STREAM), 5);
        (void)listen(agents, 5);
        (void)bind_at(place + "/confd.notifier.socket", SOCK_DGRAM);
        for (;;) {
            const int each = accept(agents, nullptr, nullptr);
            std::array<char, 4096> question{};
            (void)!recv(each, question.data(), question.size(), 0);
            (void)!send(each, word.data(), word.size(), MSG_NOSIGNAL);
            close(each);
        }
    });
}

std::function<void(DoctorTest &)> text(const std::string &file, const std::string &content)
{
    return [=](DoctorTest &) { write_file(file, content); };
}

std::function<void(DoctorTest &)> named(const std::string &directory)
{
    return text(profile, nlohmann::json{{"working-dir", directory}}.dump());
}

std::function<void(DoctorTest &)> mode(const std::string &file, mode_t mode)
{
    return [=](DoctorTest &) { chmod(file.c_str(), mode); };
}

constexpr bool as_user = true;
const fault faults[] = {
    {"profile-missing", [](DoctorTest &) { fs::remove(profile); }},
    {"profile-forbidden", mode(profile, 0), as_user},
    {"profile-forbidden", mode("/dev/shm/yang_modules", 0600), as_user},
    {"profile-invalid", text(profile, "{")},
    {"profile-invalid", text(profile, "")},
    {"profile-names-nothing", text(profile, "{\"working-dir\": 5}")},
    {"profile-writable", mode(profile, 0666)},
    {"profile-names-other",
     [](DoctorTest &stage) {
         stage.here.directory = place + ".2";
         fs::create_symlink(place, stage.here.directory);
     }},
    {"directory-relative", named("tmp")},
    {"directory-too-long", named("/" + std::string(90, 'x'))},
    {"directory-missing", named(place + ".2")},
    {"directory-forbidden", mode(place, 0600), as_user},

    {"sockets-missing", [](DoctorTest &) { fs::remove(agent_socket); }},
    {"sockets-stale", [](DoctorTest &stage) { stage.die(); }},
    {"sockets-replaced",
     [](DoctorTest &) {
         fs::remove(plugin_socket);
         write_file(plugin_socket, "");
     }},
    {"sockets-forbidden", mode(plugin_socket, 0440), as_user},
    {"sockets-of-other-kind",
     [](DoctorTest &stage) { stage.held = bind_at(plugin_socket, SOCK_DGRAM); }},
    {"two-daemons",
     [](DoctorTest &stage) {
         stage.start_second(place + ".2");
         fs::rename(place + ".2/confd.agent.socket", agent_socket);
     }},
    {"daemon-displaced",
     [](DoctorTest &stage) {
         fs::remove(plugin_socket);
         stage.start_second(place);
     }},
    {"daemon-busy",
     [](DoctorTest &stage) {
         stage.stop();
         fill_queue_of_plugins();
     }},
    {"daemon-silent", [](DoctorTest &stage) { stage.stop(); }},
    {"daemon-refuses", [](DoctorTest &stage) { pretend(stage, ""); }},
    {"daemon-odd", [](DoctorTest &stage) { pretend(stage, "HTTP/1.1 200"); }},

    {"table-half", [](DoctorTest &) { semctl(test::semaphore(), 0, IPC_RMID); }},
    {"table-half", [](DoctorTest &) { shmctl(test::segment(), IPC_RMID, nullptr); }},
    {"table-damaged", [](DoctorTest &) { set_capacity(3); }},
    {"table-damaged", [](DoctorTest &) { set_capacity(0); }},
    {"table-locked",
     [](DoctorTest &) {
         sembuf taking{0, -1, 0};
         (void)semop(test::semaphore(), &taking, 1);
     }},
    {"table-unguarded", [](DoctorTest &) { semctl(test::semaphore(), 0, SETVAL, 2); }},
    {"table-stale",
     [](DoctorTest &) {
         test::in_another_process([] {
             save_record_of(getpid());
             return 0;
         });
     }},
    {"table-full", [](DoctorTest &) { save_record_of(getppid()); }},
    {"table-abandoned",
     [](DoctorTest &) {
         conf_clishm_destroy();
         (void)test::create_elsewhere(2);
     }},
    {"table-forbidden",
     [](DoctorTest &) {
         shmid_ds closed{};
         shmctl(test::segment(), IPC_SET, &closed);
     },
     as_user},

    {"debug-file-replaced",
     [](DoctorTest &) {
         fs::remove(debug_file);
         fs::create_symlink("/etc/passwd", debug_file);
     }},
    {"debug-file-open", mode(debug_file, 0644)},
    {"debug-file-forbidden", mode(debug_file, 0440), as_user},
    {"debug-file-too-long", [](DoctorTest &) { fs::resize_file(debug_file, 0x300000); }},
    {"system-log-stale",
     [](DoctorTest &) {
         fs::rename("/dev/log", "/dev/log.kept");
         close(bind_at("/dev/log", SOCK_DGRAM));
     }},
    {"system-log-forbidden", mode("/dev/log", 0444), as_user},

    {"library-copies", text(copies + "/libconfsvc.so.1", read_file(LIBRARY) + "other")},
    {"library-too-old",
     [](DoctorTest &) {
         std::string content = read_file(LIBRARY);
         const std::string_view newer("CONFSVC_1.1\0", 12);
         for (std::size_t at = 0; (at = content.find(newer)) != std::string::npos;) {
             content[at] = 'X';
         }
         write_file(copies + "/libconfsvc.so.1", content);
     }},
    {"library-differs",
     [](DoctorTest &stage) { stage.load(copies + "/libconfsvc.so.1.0.0", "other"); }},
    {"library-replaced",
     [](DoctorTest &stage) {
         stage.load(copies + "/libconfsvc.so.1.0.0");
         fs::remove(copies + "/libconfsvc.so.1.0.0");
     }},
    {"library-twice",
     [](DoctorTest &stage) {
         stage.load(copies + "/libconfsvc.so.1.0.0");
         stage.load(copies + "/libconfsvc.so.1.0.1");
     }},
};

TEST_P(DoctorTest, NamesTheFaultAndTheCommandThatMendsIt)
{
    GetParam().make(*this);
    const doctor::findings found = look(here, GetParam().as_user);
    ASSERT_EQ(names_of(found), GetParam().name);
    const std::string &command = found[0].command;
    SCOPED_TRACE(found[0].text + " -> " + command);
    for (const std::string &left : {" " + std::to_string(getpid()), std::string("systemctl"),
                                    std::string("confsim doctor")}) {
        if (command.find(left) != std::string::npos) {
            return; // would end the test, or needs what is not there
        }
    }
    carry_out(command);
    EXPECT_EQ(names_of(look(here, GetParam().as_user)), "");
}
INSTANTIATE_TEST_SUITE_P(Faults, DoctorTest, ::testing::ValuesIn(faults));

TEST_F(DoctorTest, ReportsAreLinesAndJson)
{
    write_file(profile, "{\"working-dir\": \"/no\\nwhere\xff'\"}");
    const doctor::findings found = look(here);
    std::ostringstream lines;
    doctor::print(lines, here, found);
    const std::string text = lines.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    std::ostringstream object;
    doctor::print_json(object, here, found);
    const nlohmann::json report = nlohmann::json::parse(object.str());
    EXPECT_FALSE(report["sound"].get<bool>());
    ASSERT_EQ(report["findings"].size(), 1U);
    EXPECT_EQ(report["findings"][0]["name"], "directory-missing");
}

// The program itself: its exit status says whether there is a finding, and it leaves no trace.
TEST_F(DoctorTest, ExitStatus)
{
    const auto status_of_program = [] {
        const std::string log = read_file(debug_file);
        (void)test::take_system_log();
        const int status =
            std::system((std::string(CONFSIM) + " doctor --json >/dev/null").c_str());
        EXPECT_EQ(test::take_system_log(), test::strings());
        EXPECT_EQ(read_file(debug_file), log);
        return WEXITSTATUS(status);
    };
    EXPECT_EQ(status_of_program(), 0);
    die();
    EXPECT_EQ(status_of_program(), 1);
    EXPECT_TRUE(fs::exists(agent_socket));
    write_file(profile, "{");
    EXPECT_EQ(status_of_program(), 1);
}

} // namespace
