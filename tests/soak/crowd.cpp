// Many plugins and confsim, which commits all the time; one of them, at times confsim itself, is
// killed again and again, and started anew. Nobody else may end, and nothing may stay behind.
//
//     crowd CONFSIM PLUGINS KILLS [SEED]
//
// A plugin is a process made by fork() that joins as often as needed. Everything happens in one
// sandbox, and every process ends with this one.
#include "conf_api.h"
#include "sandbox.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <poll.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr auto patience = 120s; // only a failing run waits that long

void require(bool holds, const std::string &what)
{
    if (!holds) {
        std::cout << "FAILED: " << what << std::endl;
        std::exit(1);
    }
}

// ---- a plugin ----------------------------------------------------------------------------------

long *seen = nullptr; // by each plugin: the last value that it read
long *mine = nullptr;
bool kicked_off = false;

int on_change(int, int, int, int, const char *path)
{
    xmlNode *list = nullptr;
    if (econf_plugin_pull(0, path, &list) == 0 && list != nullptr) {
        xmlChar *text = xmlNodeGetContent(list);
        *mine = std::atol(reinterpret_cast<const char *>(text));
        xmlFree(text);
    }
    xmlFreeNodeList(list);
    return 0;
}

[[noreturn]] void be_plugin(const std::string &name)
{
    econf_plugin_config_debug(DBG_ERROR, 0);
    econf_config_cb_info_t configs[] = {{"/crowd:value", 10, on_change}, {}};
    econf_plugin_subpub_info_t info = {configs, nullptr, nullptr, [] { kicked_off = true; }};
    while (!kicked_off) {
        pollfd sock{econf_plugin_init(name.c_str(), &info), POLLIN, 0};
        if (sock.fd >= 0 && econf_plugin_activate(ACTIVATE_WITH_NONE) == 0) {
            while (!kicked_off && (sock.revents & (POLLERR | POLLHUP)) == 0) {
                poll(&sock, 1, -1);
                econf_plugin_run();
            }
        }
        if (sock.fd >= 0) {
            econf_plugin_close();
        }
        std::this_thread::sleep_for(100ms); // the name of one that was killed is free soon
    }
    std::exit(0);
}

// ---- those who run it --------------------------------------------------------------------------

const char *program = nullptr;
std::vector<pid_t> plugins;
pid_t confsim = -1;
int talk = -1; // commands to confsim, and what it says
std::string unread, last_commit, shown;
long value = 0;
bool is_busy = false; // confsim, with a commit
bool goes_on = true;
int plugin_kills = 0, confsim_kills = 0, commits = 0, broken_commits = 0, activations = 0;

// A child that ends with this process, and knows nothing of confsim.
pid_t child()
{
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(talk);
    }
    return process;
}

std::string name_of(std::size_t number)
{
    return "plugin-" + std::to_string(number);
}

void start_plugin(std::size_t number)
{
    plugins[number] = child();
    if (plugins[number] == 0) {
        mine = seen + number;
        be_plugin(name_of(number));
    }
}

void start_confsim()
{
    int ends[2];
    close(talk);
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no sockets");
    talk = ends[0];
    confsim = child();
    if (confsim == 0) {
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        execl(program, "confsim", "--dir", "/var/tmp/confd", "--store", "/var/tmp/store",
              "--timeout", "60", nullptr);
        _exit(127);
    }
    close(ends[1]);
    unread.clear();
    is_busy = false;
}

void tell(const std::string &commands)
{
    (void)!write(talk, (commands + "\n").data(), commands.size() + 1);
}

void change(const std::string &commit)
{
    tell("set /crowd:value " + std::to_string(++value) + "\n" + commit);
    is_busy = true;
}

void hear(const std::string &line)
{
    const bool committed = line.starts_with("committed:");
    const bool failed = line.starts_with("failed: commit failed");
    commits += committed ? 1 : 0;
    broken_commits += failed ? 1 : 0;
    activations += line.starts_with("* ") && line.ends_with(" activated") ? 1 : 0;
    if (committed || failed) {
        is_busy = false;
        last_commit = line;
    }
    shown = line.find("<value") != std::string::npos ? line : shown;
}

// Hears confsim and keeps it busy until `done`; returns false when that takes longer.
bool serve_until(const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    const auto end = steady::now() + limit;
    while (!done()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now());
        if (left <= 0ms) {
            return false;
        }
        if (goes_on && !is_busy) {
            change("try commit");
        }
        pollfd output{talk, POLLIN, 0};
        if (poll(&output, 1, static_cast<int>(left.count())) == 1) {
            char bytes[4096];
            const ssize_t count = read(talk, bytes, sizeof bytes);
            require(count > 0, "confsim has ended");
            unread.append(bytes, static_cast<std::size_t>(count));
            for (std::size_t at; (at = unread.find('\n')) != std::string::npos;) {
                hear(unread.substr(0, at));
                unread.erase(0, at + 1);
            }
        }
    }
    return true;
}

void wait_for(const std::string &what, const std::function<bool()> &done)
{
    require(serve_until(done, patience), "waited in vain for " + what);
}

int status_of(pid_t process, int options = 0)
{
    int status = -1;
    const pid_t ended = waitpid(process, &status, options);
    require(options == 0 || ended == 0, "process " + std::to_string(ended) +
                                            " ended with wait status " + std::to_string(status));
    return status;
}

// Lets one process die, and starts it anew.
void kill_one(std::mt19937 &random)
{
    serve_until([] { return false; }, std::chrono::milliseconds(random() % 80));
    const bool is_confsim = random() % 20 == 0;
    const std::size_t number = random() % plugins.size();
    const pid_t victim = is_confsim ? confsim : plugins[number];
    kill(victim, SIGKILL);
    require(WIFSIGNALED(status_of(victim)), "the process to be killed had ended");
    ++(is_confsim ? confsim_kills : plugin_kills);
    is_confsim ? start_confsim() : start_plugin(number);
    status_of(-1, WNOHANG); // nobody else
}

void end_in_order()
{
    goes_on = false;
    wait_for("the last random commit to end", [] { return !is_busy; });
    for (std::size_t i = 0; i < plugins.size(); ++i) {
        tell("wait " + name_of(i) + " 60");
    }
    change("commit");
    wait_for("the last commit", [] { return !is_busy; });
    const std::string wanted = "committed: 1 difference, " + std::to_string(plugins.size());
    require(last_commit.starts_with(wanted + " publication"), "the commit said " + last_commit);
    for (std::size_t i = 0; i < plugins.size(); ++i) {
        require(seen[i] == value, name_of(i) + " has read " + std::to_string(seen[i]));
    }
    status_of(-1, WNOHANG);
    tell("kickoff\nquit");
    for (const pid_t each : plugins) {
        require(status_of(each) == 0, "a plugin that was kicked off ends badly");
    }
    require(status_of(confsim) == 0, "confsim ends badly after quit");
    require(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD, "a process is left");
}

// The next confsim finds the last value.
void look_into_the_store()
{
    start_confsim();
    const std::string text = ">" + std::to_string(value) + "<";
    tell("show\nquit");
    wait_for("the stored value", [&] { return shown.find(text) != std::string::npos; });
    require(status_of(confsim) == 0, "the last confsim ends badly");
}

void nothing_is_left()
{
    for (const char *directory : {"/dev/shm", "/var/log", "/var/tmp", "/mnt"}) {
        for (const auto &entry : fs::recursive_directory_iterator(directory)) {
            const std::string path = entry.path().string();
            const bool is_store =
                path == "/var/tmp/store/running.xml" || path == "/var/tmp/store/old.xml";
            require(entry.is_directory() || is_store, "left behind: " + path);
        }
    }
    for (const char *kind : {"shm", "sem", "msg"}) {
        std::ifstream list(std::string("/proc/sysvipc/") + kind);
        std::string line;
        std::getline(list, line); // the heading
        require(!std::getline(list, line), "System V object left: " + line);
    }
}

} // namespace

int main(int count, char **arguments)
{
    std::string error;
    sandbox::options options;
    options.keep.assign(arguments + 1, arguments + std::min(count, 2));
    require(count >= 4 && sandbox::enter(options, error),
            "crowd CONFSIM PLUGINS KILLS [SEED] " + error);
    (void)std::signal(SIGPIPE, SIG_IGN);
    program = arguments[1];
    plugins.resize(std::strtoul(arguments[2], nullptr, 10));
    const auto seed = static_cast<unsigned>(count > 4 ? std::strtoul(arguments[4], nullptr, 10)
                                                      : std::random_device{}());
    std::cout << "crowd: seed " << seed << std::endl;
    std::mt19937 random(seed);
    seen = static_cast<long *>(mmap(nullptr, plugins.size() * sizeof *seen, PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (std::size_t i = 0; i < plugins.size(); ++i) {
        start_plugin(i);
    }
    start_confsim();
    for (int left = std::atoi(arguments[3]); left > 0; --left) {
        kill_one(random);
    }
    end_in_order();
    nothing_is_left();
    look_into_the_store();
    nothing_is_left();
    std::printf("  plugins                    %zu\n"
                "  killed: plugins, confsim   %d, %d\n"
                "  activations seen           %d\n"
                "  commits made, taken back   %d, %d\n"
                "  ended otherwise, left      0, 0\n",
                plugins.size(), plugin_kills, confsim_kills, activations, commits, broken_commits);
}
