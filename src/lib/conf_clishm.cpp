// The table of remote clients in System V shared memory, behind one semaphore.
// Relies on the C library only.
//
// The process that created the table stays attached and works on it directly. Every other process
// attaches for one call and forgets everything again.
#include "conf_misc.h"
#include "support/log.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace {

constexpr const char *key_file = "/mnt/squash/local/etc/confd/confd.conf";
constexpr int key_project = 0;
constexpr int permissions = 0660;
constexpr std::size_t capacity_size = sizeof(u32_t); // in front of the records

struct client_shm_info {
    int shmid = -1;
    int semid = -1;
    int num = 0;
    char *addr = nullptr;
    conf_cli_info_t *info = nullptr; // set while the table is attached
};

// The table that this process created; empty in every other process, where each call has a state of
// its own, so that several threads may call at once.
client_shm_info client_info;

union semaphore_argument { // the caller of semctl() has to define it
    int value;
    semid_ds *status;
    unsigned short *values;
};

key_t make_key()
{
    return ftok(key_file, key_project);
}

// Attaches the segment; the address is null after a failure.
bool attach_segment(client_shm_info &table)
{
    void *address = shmat(table.shmid, nullptr, 0);
    table.addr = address == reinterpret_cast<void *>(-1) ? nullptr : static_cast<char *>(address);
    if (table.addr == nullptr) {
        LOG_SYSTEM_ERROR("Attach share memory of client-info failed(%s).", std::strerror(errno));
        return false;
    }
    return true;
}

void use_segment(client_shm_info &table, int capacity)
{
    table.num = capacity;
    table.info = reinterpret_cast<conf_cli_info_t *>(table.addr + capacity_size);
}

// Takes the capacity from the segment, but never more than it has room for: the word can be written
// by every process that may attach.
void use_other_segment(client_shm_info &table)
{
    u32_t capacity = 0;
    std::memcpy(&capacity, table.addr, sizeof capacity);
    shmid_ds status{};
    const std::size_t size = shmctl(table.shmid, IPC_STAT, &status) == 0 ? status.shm_segsz : 0;
    const std::size_t room =
        size < capacity_size ? 0 : (size - capacity_size) / sizeof(conf_cli_info_t);
    use_segment(table, static_cast<int>(capacity <= room ? capacity : room));
}

void conf_clishm_dettach(client_shm_info &table)
{
    if (table.addr != nullptr) {
        (void)shmdt(table.addr);
    }
    table = {};
}

// ---- the table as a whole ----------------------------------------------------------------------

void remove_table(client_shm_info &table)
{
    const key_t key = make_key();
    int semid = table.semid;
    if (semid < 0 && key != -1) {
        semid = semget(key, 0, permissions);
    }
    if (semid >= 0) {
        (void)semctl(semid, 0, IPC_RMID);
    }
    if (table.addr != nullptr) {
        (void)shmdt(table.addr);
    }
    int shmid = table.shmid;
    if (shmid < 0 && key != -1) {
        shmid = shmget(key, 0, permissions);
    }
    if (shmid >= 0) {
        (void)shmctl(shmid, IPC_RMID, nullptr);
    }
    table = {};
}

bool create_table(client_shm_info &table, int max_num)
{
    const key_t key = make_key();
    if (key == -1) {
        LOG_SYSTEM_ERROR("Generated share memory key failed(%s).", std::strerror(errno));
        return false;
    }
    const std::uint64_t size =
        capacity_size + static_cast<std::uint64_t>(max_num) * sizeof(conf_cli_info_t);
    constexpr int creation = IPC_CREAT | IPC_EXCL | permissions;
    errno = ENOMEM; // for a size that cannot even be asked for
    const int shmid = size > SIZE_MAX ? -1 : shmget(key, static_cast<std::size_t>(size), creation);
    if (shmid < 0) {
        LOG_SYSTEM_ERROR("Allocate share memory for client-info failed(%s).", std::strerror(errno));
        table.shmid = -1; // whatever stands under the key is removed next
        return false;
    }
    conf_clishm_dettach(table); // an earlier table of this process, removed by another one
    table.shmid = shmid;
    if (!attach_segment(table)) {
        return false;
    }
    const auto capacity = static_cast<u32_t>(max_num);
    std::memcpy(table.addr, &capacity, sizeof capacity); // before others can find the whole table
    table.semid = semget(key, 1, creation);
    if (table.semid < 0) {
        LOG_SYSTEM_ERROR("Allocate semaphore for client-info failed(%s).", std::strerror(errno));
        return false;
    }
    const semaphore_argument unlocked = {1};
    if (semctl(table.semid, 0, SETVAL, unlocked) != 0) {
        LOG_SYSTEM_ERROR("Initailize semaphore for client-info failed(%s).", std::strerror(errno));
        return false;
    }
    use_segment(table, max_num);
    return true;
}

// ---- one call on the table ---------------------------------------------------------------------

bool open_table(client_shm_info &table)
{
    const key_t key = make_key();
    if (key == -1) {
        LOG_SYSTEM_ERROR("Generated share memory key failed(%s).", std::strerror(errno));
        return false;
    }
    table.shmid = shmget(key, 0, permissions);
    if (table.shmid < 0) {
        LOG_SYSTEM_ERROR("Get share memory of client-info failed(%s).", std::strerror(errno));
        return false;
    }
    table.semid = semget(key, 0, permissions);
    if (table.semid < 0) {
        LOG_SYSTEM_ERROR("Get semaphore of client-info failed(%s).", std::strerror(errno));
        return false;
    }
    return attach_segment(table);
}

// A failure shows in the lock that follows.
void conf_clishm_attach(client_shm_info &table)
{
    if (open_table(table)) {
        use_other_segment(table);
    } else {
        table = {};
    }
}

int change_semaphore(const client_shm_info &table, short by)
{
    sembuf operation{};
    operation.sem_op = by;
    operation.sem_flg = SEM_UNDO; // the kernel takes it back when the process dies
    int result;
    do {
        result = semop(table.semid, &operation, 1);
    } while (result != 0 && errno == EINTR);
    return result;
}

int conf_clishm_lock(const client_shm_info &table)
{
    if (change_semaphore(table, -1) != 0) {
        LOG_SYSTEM_WARN("Try to lock share memory failed(%s).", std::strerror(errno));
        return -1;
    }
    return 0;
}

void conf_clishm_unlock(const client_shm_info &table)
{
    if (change_semaphore(table, 1) != 0) {
        LOG_SYSTEM_WARN("Unlock share memory failed(%s).", std::strerror(errno));
    }
}

// Runs `work` on the locked records. Returns its result, or false when the table cannot be had or
// is empty. `capacity` receives the number of records, 0 when the table cannot be had.
template <typename work_type>
bool with_records(int &capacity, work_type work)
{
    client_shm_info own;
    const bool per_call = client_info.info == nullptr;
    client_shm_info &table = per_call ? own : client_info;
    if (per_call) {
        conf_clishm_attach(table);
    }
    capacity = table.num;
    bool done = false;
    if (conf_clishm_lock(table) == 0) {
        done = capacity > 0 && work(table.info, table.info + capacity);
        conf_clishm_unlock(table);
    }
    if (per_call) {
        conf_clishm_dettach(table);
    }
    return done;
}

conf_cli_info_t *find(conf_cli_info_t *first, conf_cli_info_t *end, pid_t sshd_pid)
{
    while (first != end && (first->valid == 0 || first->sshd_pid != sshd_pid)) {
        ++first;
    }
    return first;
}

} // namespace

int conf_clishm_create(int max_num)
{
    if (max_num < 1) {
        LOG_SYSTEM_ERROR("Input parameter is not valid(num=%d).", max_num);
        return -1;
    }
    if (!create_table(client_info, max_num)) {
        remove_table(client_info);
        return -1;
    }
    return 0;
}

void conf_clishm_destroy(void)
{
    remove_table(client_info);
}

int conf_save_client_info(conf_cli_info_t *info)
{
    if (info == nullptr) {
        LOG_SYSTEM_ERROR("Input parameter is not valid.");
        return -1;
    }
    int capacity = 0;
    const bool saved =
        with_records(capacity, [info](conf_cli_info_t *slot, const conf_cli_info_t *end) {
            while (slot != end && slot->valid != 0) {
                ++slot;
            }
            if (slot == end) {
                return false;
            }
            conf_cli_info_t record = *info;
            record.valid = 0;
            *slot = record;
            std::atomic_signal_fence(std::memory_order_seq_cst); // killed here, the slot stays free
            slot->valid = 1;
            return true;
        });
    if (!saved) {
        LOG_SYSTEM_ERROR("Share memory for client info is full(%d).", capacity);
        return -1;
    }
    return 0;
}

int conf_get_client_info(pid_t sshd_pid, conf_cli_info_t *info)
{
    if (info == nullptr) {
        LOG_SYSTEM_ERROR("Input parameter is not valid.");
        return -1;
    }
    int capacity = 0;
    const bool found =
        with_records(capacity, [sshd_pid, info](conf_cli_info_t *first, conf_cli_info_t *end) {
            const conf_cli_info_t *slot = find(first, end, sshd_pid);
            if (slot == end) {
                return false;
            }
            *info = *slot;
            return true;
        });
    if (!found) {
        LOG_SYSTEM_WARN("Get client info from sshd(%d) failed.", sshd_pid);
        return -1;
    }
    return 0;
}

void conf_free_client_info(pid_t sshd_pid)
{
    int capacity = 0;
    (void)with_records(capacity, [sshd_pid](conf_cli_info_t *first, conf_cli_info_t *end) {
        conf_cli_info_t *slot = find(first, end, sshd_pid);
        if (slot == end) {
            return false;
        }
        slot->valid = 0;
        return true;
    });
}
