// Many plugins and confsim, which commits all the time; one of them, at times confsim itself, is
// killed again and again, and started anew. Nobody else may end, and nothing may stay behind.
//
//     crowd CONFSIM PLUGINS KILLS [SEED]
//
// A plugin is a process made by fork() that joins as often as needed. Everything happens in one
// sandbox, and every process ends with this one.
#include "conf_api.h"
#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr auto patience = 120s; // only a failing run waits that long

[[noreturn]] void give_up(const std::string &why)
{
    std::cout << "FAILED: " << why << std::endl;
    std::exit(1);
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

void serve(pollfd sock)
{
    while (!kicked_off && (sock.revents & (POLLERR | POLLHUP)) == 0) {
        poll(&sock, 1, -1);
        econf_plugin_run();
    }
}

[[noreturn]] void be_plugin(const std::string &name)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    econf_plugin_config_debug(DBG_ERROR, 0);
    econf_config_cb_info_t configs[] = {{"/crowd:value", 10, on_change}, {nullptr, 0, nullptr}};
    econf_plugin_subpub_info_t info = {configs, nullptr, nullptr, [] { kicked_off = true; }};
    while (!kicked_off) {
        const int sock = econf_plugin_init(name.c_str(), &info);
        if (sock >= 0) {
            if (econf_plugin_activate(ACTIVATE_WITH_NONE) == 0) {
                serve({sock, POLLIN, 0});
            }
            econf_plugin_close();
        }
        std::this_thread::sleep_for(100ms); // the name of one that was killed is free soon
    }
    std::exit(0);
}

// ---- those who run it --------------------------------------------------------------------------

class crowd {
public:
    crowd(std::string confsim, std::size_t size) : program_(std::move(confsim)), plugins_(size)
    {
        for (std::size_t i = 0; i < size; ++i) {
            start_plugin(i);
        }
        start_confsim();
    }

    // Lets one process die, and starts it anew.
    void kill_one(std::mt19937 &random)
    {
        std::uniform_int_distribution<int> milliseconds(0, 80);
        serve_until([] { return false; }, std::chrono::milliseconds(milliseconds(random)));
        const bool is_confsim = random() % 20 == 0;
        const std::size_t number = random() % plugins_.size();
        const pid_t victim = is_confsim ? confsim_ : plugins_[number];
        kill(victim, SIGKILL);
        if (!WIFSIGNALED(status_of(victim))) {
            give_up("the process to be killed had ended");
        }
        if (is_confsim) {
            close(commands_);
            close(answers_);
            start_confsim();
            ++confsim_kills;
        } else {
            start_plugin(number);
            ++plugin_kills;
        }
        nobody_else_has_ended();
    }

    void end_in_order()
    {
        goes_on_ = false;
        wait_for([this] { return !is_busy_; }, "the last random commit to end");
        for (std::size_t i = 0; i < plugins_.size(); ++i) {
            tell("wait " + name_of(i) + " 60");
        }
        change("commit");
        wait_for([this] { return !is_busy_; }, "the last commit");
        const std::string wanted = "committed: 1 difference, " + std::to_string(plugins_.size());
        if (!last_commit_.starts_with(wanted + " publication")) {
            give_up("the last commit said: " + last_commit_);
        }
        for (std::size_t i = 0; i < plugins_.size(); ++i) {
            if (seen[i] != value_) {
                give_up(name_of(i) + " has read " + std::to_string(seen[i]));
            }
        }
        nobody_else_has_ended();
        tell("kickoff\nquit");
        for (const pid_t each : plugins_) {
            ends_well(each, "a plugin that was kicked off");
        }
        ends_well(confsim_, "confsim after quit");
        if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) {
            give_up("a process is left");
        }
        close(commands_);
        close(answers_);
    }

    // The next confsim finds the last value.
    void look_into_the_store()
    {
        start_confsim();
        const std::string text = ">" + std::to_string(value_) + "<";
        tell("show\nquit");
        wait_for([&] { return shown_.find(text) != std::string::npos; }, "the stored value");
        ends_well(confsim_, "the last confsim");
    }

    int plugin_kills = 0, confsim_kills = 0, commits = 0, broken_commits = 0, activations = 0;

private:
    static std::string name_of(std::size_t number) { return "plugin-" + std::to_string(number); }

    void start_plugin(std::size_t number)
    {
        plugins_[number] = fork();
        if (plugins_[number] == 0) {
            close(commands_);
            close(answers_);
            mine = seen + number;
            be_plugin(name_of(number));
        }
    }

    void start_confsim()
    {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            give_up("no pipes");
        }
        confsim_ = fork();
        if (confsim_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            execl(program_.c_str(), "confsim", "--dir", "/var/tmp/confd", "--store",
                  "/var/tmp/store", "--timeout", "60", nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        commands_ = in[1];
        answers_ = out[0];
        pending_.clear();
        is_busy_ = false;
    }

    void tell(const std::string &command) const
    {
        const std::string line = command + "\n";
        (void)!write(commands_, line.data(), line.size());
    }

    void change(const std::string &commit)
    {
        tell("set /crowd:value " + std::to_string(++value_) + "\n" + commit);
        is_busy_ = true;
    }

    // Reads what confsim says and keeps it busy until `done`; returns false when that takes longer.
    template <typename condition>
    bool serve_until(condition done, std::chrono::milliseconds limit)
    {
        const auto end = steady::now() + limit;
        while (!done()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now());
            if (left <= 0ms) {
                return false;
            }
            if (goes_on_ && !is_busy_) {
                change("try commit");
            }
            pollfd output{answers_, POLLIN, 0};
            if (poll(&output, 1, static_cast<int>(left.count())) == 1) {
                char bytes[4096];
                const ssize_t count = read(answers_, bytes, sizeof bytes);
                if (count <= 0) {
                    give_up("confsim has ended");
                }
                pending_.append(bytes, static_cast<std::size_t>(count));
                take_lines();
            }
        }
        return true;
    }

    template <typename condition>
    void wait_for(condition done, const std::string &what)
    {
        if (!serve_until(done, patience)) {
            give_up("waited in vain for " + what);
        }
    }

    void take_lines()
    {
        for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
            const std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            const bool committed = line.starts_with("committed:");
            const bool failed = line.starts_with("failed: commit failed");
            commits += committed ? 1 : 0;
            broken_commits += failed ? 1 : 0;
            activations += line.starts_with("* ") && line.ends_with(" activated") ? 1 : 0;
            if (committed || failed) {
                is_busy_ = false;
                last_commit_ = line;
            }
            shown_ = line.find("<value") != std::string::npos ? line : shown_;
        }
    }

    static int status_of(pid_t process)
    {
        int status = 0;
        waitpid(process, &status, 0);
        return status;
    }

    void ends_well(pid_t process, const std::string &who)
    {
        const int status = status_of(process);
        if (status != 0) {
            give_up(who + " ended with wait status " + std::to_string(status));
        }
    }

    static void nobody_else_has_ended()
    {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended != 0) {
            give_up("process " + std::to_string(ended) + " ended with wait status " +
                    std::to_string(status));
        }
    }

    std::string program_;
    std::vector<pid_t> plugins_;
    pid_t confsim_ = -1;
    int commands_ = -1;
    int answers_ = -1;
    std::string pending_, last_commit_, shown_;
    long value_ = 0;
    bool is_busy_ = false; // with a commit
    bool goes_on_ = true;
};

// ---- what is left ------------------------------------------------------------------------------

int system_v_objects()
{
    int lines = 0;
    for (const char *kind : {"shm", "sem", "msg"}) {
        std::ifstream list(std::string("/proc/sysvipc/") + kind);
        for (std::string line; std::getline(list, line); ++lines) {
        }
    }
    return lines - 3; // the headings
}

void nothing_is_left()
{
    for (const char *directory : {"/dev/shm", "/var/log", "/var/tmp", "/mnt"}) {
        for (const auto &entry : fs::recursive_directory_iterator(directory)) {
            const std::string path = entry.path().string();
            const bool is_store =
                path == "/var/tmp/store/running.xml" || path == "/var/tmp/store/old.xml";
            if (!entry.is_directory() && !is_store) {
                give_up("left behind: " + path);
            }
        }
    }
    if (system_v_objects() != 0) {
        give_up("System V objects are left");
    }
}

} // namespace

int main(int count, char **arguments)
{
    std::string error;
    sandbox::options options;
    options.keep.assign(arguments + 1, arguments + std::min(count, 2));
    if (count < 4 || !sandbox::enter(options, error)) {
        give_up("crowd CONFSIM PLUGINS KILLS [SEED] " + error);
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    const std::size_t size = std::strtoul(arguments[2], nullptr, 10);
    const int kills = std::atoi(arguments[3]);
    const auto seed = static_cast<unsigned>(count > 4 ? std::strtoul(arguments[4], nullptr, 10)
                                                      : std::random_device{}());
    std::cout << "crowd: seed " << seed << std::endl;
    std::mt19937 random(seed);
    seen = static_cast<long *>(mmap(nullptr, size * sizeof *seen, PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    crowd all(arguments[1], size);
    for (int i = 0; i < kills; ++i) {
        all.kill_one(random);
    }
    all.end_in_order();
    nothing_is_left();
    all.look_into_the_store();
    nothing_is_left();
    std::printf("  plugins                    %zu\n"
                "  killed: plugins, confsim   %d, %d\n"
                "  activations seen           %d\n"
                "  commits made, taken back   %d, %d\n"
                "  ended otherwise, left      0, 0\n",
                size, all.plugin_kills, all.confsim_kills, all.activations, all.commits,
                all.broken_commits);
}
