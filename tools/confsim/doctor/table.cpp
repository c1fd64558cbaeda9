// Is the client table sound? See conf_misc.h; its layout is that of conf_clishm.cpp.
//
// The calls of the library take the table's lock and could wait for it, so the segment is attached
// here, read-only and without the lock. A record that is being written meanwhile is not valid yet.
#include "conf_misc.h"
#include "doctor/checks.h"
#include "doctor/processes.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <thread>

namespace confsim::doctor {

namespace {

constexpr const char *key_file = "/mnt/squash/local/etc/confd/confd.conf";
constexpr std::size_t capacity_size = sizeof(u32_t);

// A look through all records is a matter of microseconds: held at each of these looks means kept.
constexpr int looks = 20;
constexpr std::chrono::milliseconds between_looks{10};

struct table {
    int segment = -1;
    int semaphore = -1;

    [[nodiscard]] std::string removal() const
    {
        return "sudo ipcrm" + (segment < 0 ? "" : " -m " + std::to_string(segment)) +
               (semaphore < 0 ? "" : " -s " + std::to_string(semaphore));
    }
    // After its removal the daemon makes a new table when it starts.
    [[nodiscard]] findings broken(const char *name, const std::string &text) const
    {
        return {{name, "the client table " + text, removal()}};
    }
};

class attached {
public:
    explicit attached(int segment) : address_(shmat(segment, nullptr, SHM_RDONLY)) {}
    ~attached()
    {
        if (is_there()) {
            (void)shmdt(address_);
        }
    }
    attached(const attached &) = delete;
    attached &operator=(const attached &) = delete;

    [[nodiscard]] bool is_there() const { return address_ != reinterpret_cast<void *>(-1); }

    // What stands at a place of the segment.
    template <typename type>
    [[nodiscard]] type at(std::size_t offset) const
    {
        type copy{};
        std::memcpy(&copy, static_cast<const char *>(address_) + offset, sizeof copy);
        return copy;
    }

private:
    void *address_;
};

bool is_alive(int32_t process)
{
    return process > 0 && (kill(process, 0) == 0 || errno != ESRCH);
}

// The lock is a semaphore that counts down from 1.
findings check_lock(const table &there)
{
    int value = semctl(there.semaphore, 0, GETVAL);
    for (int look = 1; value == 0 && look < looks; ++look) {
        std::this_thread::sleep_for(between_looks);
        value = semctl(there.semaphore, 0, GETVAL);
    }
    const int holder = semctl(there.semaphore, 0, GETPID);
    if (value == 0 && is_alive(holder)) {
        return {{"table-locked", process_text(holder) + " keeps the client table locked",
                 (is_stopped(holder) ? "kill -CONT " : "kill ") + std::to_string(holder)}};
    }
    if (value == 0) {
        return there.broken("table-locked", "is locked, and who did it has ended");
    }
    if (value > 1) {
        return there.broken("table-unguarded",
                            "lets " + std::to_string(value) + " processes write at a time");
    }
    return {};
}

findings check_records(const table &there, const attached &memory, u32_t capacity)
{
    u32_t used = 0;
    std::string dead;
    for (u32_t i = 0; i < capacity; ++i) {
        const auto record = memory.at<conf_cli_info_t>(capacity_size + i * sizeof(conf_cli_info_t));
        if (record.valid != 0) {
            ++used;
            dead += is_alive(record.sshd_pid) ? "" : " " + std::to_string(record.sshd_pid);
        }
    }
    if (!dead.empty()) {
        return there.broken("table-stale", "has records of processes that have ended:" + dead);
    }
    if (used == capacity) {
        return there.broken("table-full", "is full: further clients get none of its " +
                                              std::to_string(capacity) + " records");
    }
    return {};
}

} // namespace

findings check_table(facts &here)
{
    const key_t key = ftok(key_file, 0);
    table there;
    if (key != -1) {
        there.segment = shmget(key, 0, 0); // asks for no permission yet
        there.semaphore = semget(key, 0, 0);
    }
    if (there.segment < 0 && there.semaphore < 0) {
        here.notes.emplace_back("there is no client table");
        return {};
    }
    if (there.segment < 0 || there.semaphore < 0) {
        return there.broken("table-half", there.segment < 0 ? "has a semaphore but no memory"
                                                            : "has memory but no semaphore");
    }
    shmid_ds status{};
    const int known = shmctl(there.segment, IPC_STAT, &status);
    const attached memory(there.segment);
    if (known != 0 || !memory.is_there() || semctl(there.semaphore, 0, GETVAL) < 0) {
        return {
            {"table-forbidden", "this user may not read the client table", "sudo confsim doctor"}};
    }
    if (status.shm_nattch == 0) {
        return there.broken("table-abandoned", "is left over: who made it has ended");
    }
    const std::size_t room =
        status.shm_segsz < capacity_size ? 0 : status.shm_segsz - capacity_size;
    const u32_t capacity = room == 0 ? 0 : memory.at<u32_t>(0);
    if (capacity == 0 || capacity > room / sizeof(conf_cli_info_t)) {
        return there.broken("table-damaged",
                            "has room for " + std::to_string(room / sizeof(conf_cli_info_t)) +
                                " records, and claims " + std::to_string(capacity));
    }
    findings found = check_lock(there);
    return found.empty() ? check_records(there, memory, capacity) : found;
}

} // namespace confsim::doctor
