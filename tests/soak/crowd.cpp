// Many plugins and confsim, which commits all the time; one of them, at times confsim itself, is
// killed again and again, and started anew. Nobody else may end, and nothing may stay behind.
//
//     crowd CONFSIM PLUGINS KILLS [SEED]
//
// A plugin is a process made by fork() that joins as often as needed. Everything happens in one
// sandbox, and every process ends with this one.
#include "client_table.h"
#include "conf_api.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <random>
#include <sstream>
#include <sys/mman.h>
#include <thread>

namespace {

using std::chrono::milliseconds;

constexpr unsigned patience = 120; // seconds after which a run that hangs is killed

std::size_t plugins = 0;
std::vector<pid_t> processes; // the plugins, and behind them confsim
long *seen = nullptr;         // by each plugin: the last value that it read
long *mine = nullptr;
long value = 0;
bool kicked_off = false;
int commands = -1; // a pipe to confsim, which holds some seconds of work
const int said = memfd_create("said", MFD_CLOEXEC); // by each confsim

// ---- the processes -----------------------------------------------------------------------------

int on_change(int, int, int, int, const char *path)
{
    xmlNode *list = nullptr;
    if (econf_plugin_pull(0, path, &list) == 0 && list != nullptr) {
        *mine = std::strtol(conf_get_node_content(list), nullptr, 10);
    }
    xmlFreeNodeList(list);
    return 0;
}

std::string name_of(std::size_t number)
{
    return "plugin-" + std::to_string(number);
}

int be_plugin(std::size_t number)
{
    mine = seen + number;
    econf_plugin_config_debug(DBG_ERROR, 0);
    econf_config_cb_info_t configs[] = {{"/crowd:value", 10, on_change}, {}};
    econf_plugin_subpub_info_t info = {configs, nullptr, nullptr, [] { kicked_off = true; }};
    while (!kicked_off) {
        pollfd sock{econf_plugin_init(name_of(number).c_str(), &info), POLLIN, 0};
        const bool active = sock.fd >= 0 && econf_plugin_activate(ACTIVATE_WITH_NONE) == 0;
        while (active && !kicked_off && (sock.revents & (POLLERR | POLLHUP)) == 0) {
            poll(&sock, 1, -1);
            econf_plugin_run();
        }
        econf_plugin_close();
        std::this_thread::sleep_for(milliseconds(100)); // a killed one's name is free soon
    }
    std::exit(0);
}

int be_confsim(const char *program, int input)
{
    dup2(input, STDIN_FILENO);
    dup2(said, STDOUT_FILENO);
    return execl(program, "confsim", "--dir", "/var/tmp/confd", "--store", "/var/tmp/store",
                 "--timeout", "60", nullptr);
}

void start(const char *program, std::size_t number)
{
    int ends[2] = {-1, -1};
    if (number == plugins) {
        close(commands);
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        EXPECT_GT(fcntl(ends[1], F_SETPIPE_SZ, 4096), 0);
        commands = ends[1];
    }
    processes[number] = test::start_process(
        [=] { return number == plugins ? be_confsim(program, ends[0]) : be_plugin(number); });
    close(ends[0]);
}

void ends_with(int wanted, std::size_t number)
{
    int status = -1;
    waitpid(processes[number], &status, 0);
    EXPECT_EQ(status, wanted) << name_of(number);
}

// ---- the run -----------------------------------------------------------------------------------

// Tells confsim to do something after all that it has been told; false when there is no room.
bool tell(const std::string &command)
{
    return write(commands, (command + '\n').data(), command.size() + 1) > 0;
}

std::string change(const std::string &commit)
{
    return "set /crowd:value " + std::to_string(++value) + '\n' + commit;
}

void end_in_order()
{
    (void)fcntl(commands, F_SETFL, 0); // now the telling waits
    for (std::size_t i = 0; i < plugins; ++i) {
        tell("wait " + name_of(i) + " 60");
    }
    tell(change("commit\nkickoff\nquit"));
    for (std::size_t i = 0; i <= plugins; ++i) {
        ends_with(0, i);
        EXPECT_TRUE(i == plugins || seen[i] == value) << name_of(i);
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
}

void nothing_is_left()
{
    for (const char *directory : {"/dev/shm", "/var/log", "/var/tmp", "/mnt"}) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
            const bool is_store = entry.path().extension() == ".xml";
            EXPECT_TRUE(entry.is_directory() || is_store) << entry << " is left";
        }
    }
    for (const std::string kind : {"shm", "sem", "msg"}) {
        std::ifstream list("/proc/sysvipc/" + kind);
        std::string line;
        std::getline(list, line); // the heading
        EXPECT_FALSE(std::getline(list, line)) << "System V object left: " << line;
    }
}

// Of the last confsim, which only shows what is stored, and of all others.
void look_at_what_was_said()
{
    std::stringstream all;
    all << std::ifstream("/proc/self/fd/" + std::to_string(said)).rdbuf();
    const std::string text = all.str();
    const auto count = [&text](const char *what) {
        int found = 0;
        for (std::size_t at = 0; (at = text.find(what, at) + 1) != 0;) {
            ++found;
        }
        return found;
    };
    const std::string last = text.substr(text.rfind("committed:"));
    EXPECT_TRUE(last.starts_with("committed: 1 difference, " + std::to_string(plugins))) << last;
    EXPECT_NE(last.find('>' + std::to_string(value) + '<'), std::string::npos) << last;
    std::cout << "  plugins                    " << plugins << "\n  activations seen           "
              << count(" activated\n") << "\n  commits made, taken back   " << count("\ncommitted:")
              << ", " << count("\nfailed: commit failed") << '\n';
}

} // namespace

int main(int count, char **arguments)
{
    std::string error;
    sandbox::options options;
    options.keep.assign(arguments + 1, arguments + std::min(count, 2));
    GTEST_FLAG_SET(break_on_failure, true);
    EXPECT_GE(count, 4) << "crowd CONFSIM PLUGINS KILLS [SEED]";
    EXPECT_TRUE(sandbox::enter(options, error)) << error;
    (void)std::signal(SIGPIPE, SIG_IGN);
    plugins = std::strtoul(arguments[2], nullptr, 10);
    processes.resize(plugins + 1);
    const unsigned long seed =
        count > 4 ? std::strtoul(arguments[4], nullptr, 10) : std::random_device{}();
    std::cout << "crowd: seed " << seed << std::endl;
    std::mt19937_64 random(seed);
    seen = static_cast<long *>(mmap(nullptr, plugins * sizeof *seen, PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (std::size_t i = 0; i <= plugins; ++i) {
        start(arguments[1], i);
    }
    int kills[] = {0, 0}; // of plugins, and of confsim
    for (auto left = std::strtoul(arguments[3], nullptr, 10); left > 0; --left) {
        alarm(patience);
        while (tell(change("try commit"))) {
        }
        std::this_thread::sleep_for(milliseconds(random() % 80));
        const std::size_t victim = random() % 20 == 0 ? plugins : random() % plugins;
        kill(processes[victim], SIGKILL);
        ends_with(SIGKILL, victim);
        ++kills[victim == plugins ? 1 : 0];
        start(arguments[1], victim);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "somebody else has ended";
    }
    end_in_order();
    nothing_is_left();
    start(arguments[1], plugins);
    tell("show\nquit");
    ends_with(0, plugins);
    nothing_is_left();
    look_at_what_was_said();
    std::cout << "  killed: plugins, confsim   " << kills[0] << ", " << kills[1] << std::endl;
}
