// The client table, in both ways of use: its System V objects, its bytes, its records; and its
// lock, under threads, and under processes that are killed at any moment and begin again.
#include "client_table.h"
#include "test_support.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>

namespace {

using namespace test;

// Segments that this process has attached.
int attached_segments()
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/SYSV") != std::string::npos ? 1 : 0;
    }
    return count;
}

// The segment as 32-bit words: the capacity, and six for each record, the second being its flags.
struct Words : std::unique_ptr<u32_t[], int (*)(const void *)> {
    Words() : unique_ptr(static_cast<u32_t *>(shmat(segment(), nullptr, 0)), shmdt) {}
};

conf_cli_info_t record(pid_t pid, u32_t port = 0)
{
    conf_cli_info_t info{};
    info.sshd_pid = pid;
    info.cli_port = port & 0xffffU;
    std::memset(info.addr_buf, pid + static_cast<int>(port), sizeof info.addr_buf);
    return info;
}

int save(conf_cli_info_t info)
{
    return conf_save_client_info(&info);
}

// The port of the record found; -1 for none, -2 for one that is not whole.
int look_up(pid_t pid)
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

class ClientTable : public test::Fixture {
protected:
    ClientTable()
    {
        alarm(250); // a test that hangs is killed
        make_key_file();
    }
    ~ClientTable() override
    {
        conf_clishm_destroy();
        expect_no_table();
        alarm(0);
    }

    static void expect_no_table()
    {
        EXPECT_EQ(segment(), -1);
        EXPECT_EQ(semaphore(), -1);
        EXPECT_EQ(attached_segments(), 0);
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
            EXPECT_EQ(test::take_reports(), "");
        }
    }
};

TEST_F(ClientTable, KeepsRecordsByProcess)
{
    both_ways(2, [] {
        EXPECT_EQ(save(record(5, 50)), 0);
        EXPECT_EQ(save(record(6, 60)), 0);
        refused(save(record(7, 70)), -1, "Share memory for client info is full(2).");
        EXPECT_EQ(std::pair(look_up(5), look_up(6)), std::pair(50, 60));

        const Words words;
        conf_free_client_info(5);
        conf_free_client_info(5); // there is none any more, which is not reported
        EXPECT_EQ(words[1], 5U) << "the slot keeps its bytes";
        refused(look_up(5), -1, "<12>[WARN] Get client info from sshd(5) failed.");
        // Two records of one process: the lower one, in the first free slot, comes first.
        EXPECT_EQ(save(record(6, 61)), 0);
        EXPECT_EQ(look_up(6), 61);
        conf_free_client_info(6);
        EXPECT_EQ(look_up(6), 60);

        conf_cli_info_t info = record(-3, 0x8001);
        info.ipv6 = 1;
        info.reserved = 0x2001;
        EXPECT_EQ(save(info), 0);
        EXPECT_EQ(std::pair(words[1], words[2]), std::pair(0xfffffffdU, 0x80060007U));
        EXPECT_EQ(std::memcmp(&words[3], info.addr_buf, 16), 0);
    });
    refused(conf_save_client_info(nullptr), -1, "Input parameter is not valid.");
    refused(conf_get_client_info(99, nullptr), -1, "Input parameter is not valid.");
}

TEST_F(ClientTable, NeverLooksBeyondTheSegment)
{
    ASSERT_EQ(create_elsewhere(1), 0);
    const Words words;
    for (const u32_t capacity : {2U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        words[0] = capacity;
        EXPECT_EQ(save(record(5)), 0) << capacity;
        refused(save(record(7)), -1, "Share memory for client info is full(1).");
        refused(look_up(7), -1, "<12>[WARN] Get client info from sshd(7) failed.");
        conf_free_client_info(7);
        conf_free_client_info(5);
    }
    words[0] = 0;
    refused(save(record(7)), -1, "Share memory for client info is full(0).");
}

TEST_F(ClientTable, IsCreatedEmptyAndReplacesWhatAnEarlierRunLeft)
{
    refused(conf_clishm_create(0), -1, "Input parameter is not valid(num=0).");
    int (*const remains[])() = {[] { return conf_clishm_create(9); },
                                [] { return create_elsewhere(9); },
                                [] { return semget(ftok(key_file, 0), 1, IPC_CREAT | 0600); }};
    for (const auto leave : remains) {
        EXPECT_GE(leave(), 0);
        const std::string what = segment() >= 0 ? "share memory" : "semaphore";
        refused(conf_clishm_create(3), -1,
                "Allocate " + what + " for client-info failed(File exists).");
        expect_no_table();

        EXPECT_EQ(conf_clishm_create(3), 0);
        shmid_ds status{};
        semid_ds set{};
        EXPECT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
        EXPECT_EQ(semctl(semaphore(), 0, IPC_STAT, &set), 0);
        EXPECT_EQ(std::tuple(status.shm_segsz, status.shm_perm.mode), std::tuple(76U, 0660U));
        EXPECT_EQ(std::tuple(set.sem_nsems, set.sem_perm.mode), std::tuple(1U, 0660U));
        const Words words;
        EXPECT_EQ(words[0], 3U);
        EXPECT_EQ(std::count(&words[1], &words[19], 0), 18);
        conf_clishm_destroy();
    }
}

TEST_F(ClientTable, CanBeRemovedAndCreatedAnewByAnyProcess)
{
    ASSERT_EQ(conf_clishm_create(3), 0);
    EXPECT_EQ(in_another_process([] { return conf_clishm_destroy(), 0; }), 0);
    EXPECT_EQ(std::pair(segment(), semaphore()), std::pair(-1, -1));
    refused(save(record(5)), -1,
            "<12>[WARN] Try to lock share memory failed(Invalid argument).\n"
            "Share memory for client info is full(3).");
    ASSERT_EQ(conf_clishm_create(1), 0);
    EXPECT_EQ(attached_segments(), 1) << "the older one has been left";
    EXPECT_EQ(save(record(5)), 0);
}

TEST_F(ClientTable, SeveralThreadsMayCall)
{
    both_ways(8, [] {
        std::vector<std::jthread> threads;
        for (int number = 1; number <= 8; ++number) {
            threads.emplace_back([number] {
                for (int round = 0; round < 300; ++round) {
                    EXPECT_EQ(save(record(number, static_cast<u32_t>(round))), 0);
                    EXPECT_EQ(look_up(number), round);
                    conf_free_client_info(number);
                }
            });
        }
    });
}

// One life of a worker, which a timer ends after 20 microseconds or 40 milliseconds or anything
// between, also inside of a call; `done` outlives it. In the end the worker's record stands in the
// table. Returns 0 then, 1 when something went wrong.
int live(volatile int &done, pid_t pid, unsigned seed)
{
    const char *wanted = std::getenv("CONFSVC_TEST_OPERATIONS");
    const long operations = wanted == nullptr ? 300 : std::strtol(wanted, nullptr, 10);
    const itimerval end = {{}, {0, 20 << seed % 12}};
    setitimer(ITIMER_REAL, &end, nullptr);
    do {
        conf_free_client_info(pid); // also that of a life cut short, where it had got so far
        done = done + 1;
        const int port = done % 0xffff;
        if (save(record(pid, static_cast<u32_t>(port))) != 0 || look_up(pid) != port) {
            return 1;
        }
    } while (done < operations);
    return 0;
}

TEST_F(ClientTable, LosesAndDoublesNothingWhenProcessesAreKilled)
{
    constexpr int workers = 8;
    constexpr int others = 100; // records that nobody touches, so that each call takes some time
    void *memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *done = static_cast<int *>(memory);
    both_ways(others + workers, [&] {
        std::memset(memory, 0, 4096);
        for (int other = 1; other <= others; ++other) {
            EXPECT_EQ(save(record(-other)), 0);
        }
        unsigned lives = 0;
        std::map<pid_t, int> alive;
        const auto begin = [&](int worker) {
            ++lives;
            alive[start_process([&] { return live(done[worker], worker, lives); })] = worker;
        };
        for (int worker = 1; worker <= workers; ++worker) {
            begin(worker);
        }
        while (!alive.empty()) {
            int status = -1;
            const auto ended = alive.extract(wait(&status));
            ASSERT_FALSE(ended.empty());
            if (status == SIGALRM) { // is how the timer ends a process
                begin(ended.mapped());
            } else {
                EXPECT_EQ(status, 0) << "an operation gave a wrong result";
            }
        }
        EXPECT_GT(lives, static_cast<unsigned>(workers));
        for (int pid = -others; pid <= workers; ++pid) {
            EXPECT_TRUE(pid == 0 || look_up(pid) >= 0) << "lost or pushed out by a double";
        }
    });
    munmap(memory, 4096);
}

} // namespace
