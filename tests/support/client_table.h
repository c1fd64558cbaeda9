// What the tests of the client table share: a look at its System V objects from outside, calls in
// other processes and threads, and a fixture that leaves nothing behind.
#ifndef CONFSVC_TEST_CLIENT_TABLE_H
#define CONFSVC_TEST_CLIENT_TABLE_H

#include "conf_misc.h"
#include "reports.h"

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

inline constexpr const char *key_file = "/mnt/squash/local/etc/confd/confd.conf";

inline int segment()
{
    return shmget(ftok(key_file, 0), 0, 0);
}

inline int semaphore()
{
    return semget(ftok(key_file, 0), 0, 0);
}

// Segments that this process has attached.
inline int attached_segments()
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/SYSV") != std::string::npos ? 1 : 0;
    }
    return count;
}

inline void expect_no_table()
{
    EXPECT_EQ(segment(), -1);
    EXPECT_EQ(semaphore(), -1);
    EXPECT_EQ(attached_segments(), 0);
}

// The segment as 32-bit words: the capacity, and six for each record, the second being its flags.
struct Words : std::unique_ptr<u32_t[], int (*)(const void *)> {
    Words() : unique_ptr(static_cast<u32_t *>(shmat(segment(), nullptr, 0)), shmdt) {}
};

// A process that does `body` and ends with what it returns, or with this one.
inline pid_t start_process(const std::function<int()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(body());
    }
    return child;
}

inline int in_another_process(const std::function<int()> &body)
{
    const pid_t child = start_process(body);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

inline int create_elsewhere(int capacity)
{
    return in_another_process([=] { return conf_clishm_create(capacity); });
}

inline conf_cli_info_t record(pid_t pid, u32_t port = 0)
{
    conf_cli_info_t info{};
    info.sshd_pid = pid;
    info.cli_port = port & 0xffffU;
    const auto word = static_cast<u32_t>(pid);
    const std::array<u32_t, 4> address = {word, ~word, port, word * 3};
    std::memcpy(info.addr_buf, address.data(), sizeof info.addr_buf);
    return info;
}

inline int save(conf_cli_info_t info)
{
    return conf_save_client_info(&info);
}

// The port of the record found; -1 for none, -2 for one that is not whole.
inline int look_up(pid_t pid)
{
    conf_cli_info_t info{};
    if (conf_get_client_info(pid, &info) != 0) {
        return -1;
    }
    const auto port = static_cast<u32_t>(info.cli_port);
    conf_cli_info_t expected = record(pid, port);
    expected.valid = 1;
    return std::memcmp(&info, &expected, sizeof info) == 0 ? static_cast<int>(port) : -2;
}

inline void make_key_file()
{
    std::filesystem::create_directories(std::filesystem::path(key_file).parent_path());
    std::ofstream(key_file, std::ios::app).flush();
}

class ClientTable : public test::Fixture {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        alarm(250); // a test that hangs is killed
        make_key_file();
    }
    void TearDown() override
    {
        conf_clishm_destroy();
        expect_no_table();
        alarm(0);
        Fixture::TearDown();
    }

    // Calls `body` on a table of this process, which stays attached to it, then on one of another
    // process, where each call attaches.
    static void both_ways(int capacity, const std::function<void()> &body)
    {
        for (const bool attached : {true, false}) {
            SCOPED_TRACE(attached ? "attached" : "attaching in each call");
            ASSERT_EQ(attached ? conf_clishm_create(capacity) : create_elsewhere(capacity), 0);
            body();
            EXPECT_EQ(attached_segments(), attached ? 1 : 0);
            EXPECT_EQ(semctl(semaphore(), 0, GETVAL), 1);
            conf_clishm_destroy();
            EXPECT_EQ(take_reports(), "");
        }
    }
};

} // namespace test

#endif
