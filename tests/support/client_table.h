// What tests that meet the client table share: a look at its System V objects from outside, and
// calls in other processes.
#ifndef CONFSVC_TEST_CLIENT_TABLE_H
#define CONFSVC_TEST_CLIENT_TABLE_H

#include "conf_misc.h"

#include <csignal>
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

inline void make_key_file()
{
    std::filesystem::create_directories(std::filesystem::path(key_file).parent_path());
    std::ofstream(key_file, std::ios::app).flush();
}

inline int segment()
{
    return shmget(ftok(key_file, 0), 0, 0);
}

inline int semaphore()
{
    return semget(ftok(key_file, 0), 0, 0);
}

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
    int status = -1;
    waitpid(start_process(body), &status, 0);
    return status;
}

inline int create_elsewhere(int capacity)
{
    return in_another_process([=] { return conf_clishm_create(capacity); });
}

} // namespace test

#endif
