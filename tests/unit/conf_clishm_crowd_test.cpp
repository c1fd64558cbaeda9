// The client table's lock: under signals, threads, and many processes that are killed at any moment
// and begin again.
#include "client_table.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>

using namespace test;

namespace {

// The record lies where no process can reach it: it dies while it copies.
TEST_F(ClientTable, IsLockedByEachCallAndUnlockedWhenTheCallerDies)
{
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto *nowhere = static_cast<conf_cli_info_t *>(page);
    both_ways(2, [&] {
        EXPECT_EQ(save(record(5, 50)), 0);
        for (const bool saves : {true, false}) {
            const int status = in_another_process([=] {
                (void)std::signal(SIGSEGV, [](int) {
                    _exit(semctl(semaphore(), 0, GETVAL) == 0 ? 3 : 4); // 0 when it is locked
                });
                return saves ? conf_save_client_info(nowhere) : conf_get_client_info(5, nowhere);
            });
            EXPECT_EQ(WEXITSTATUS(status), 3) << saves;
            EXPECT_EQ(look_up(5), 50);
        }
        EXPECT_EQ(save(record(6)), 0) << "nothing of the record that was being saved";
    });
    munmap(page, 4096);
}

TEST_F(ClientTable, IsWaitedForAlsoAfterASignal)
{
    const std::function<int()> calls[] = {[] { return save(record(5, 50)); },
                                          [] { return look_up(5) - 50; },
                                          [] { return conf_free_client_info(5), 0; }};
    both_ways(1, [&] {
        for (const auto &call : calls) {
            semctl(semaphore(), 0, SETVAL, 0);
            const pid_t child = start_process([&] {
                struct sigaction action {};
                action.sa_handler = [](int) {};
                sigaction(SIGUSR1, &action, nullptr);
                return call();
            });
            siginfo_t ended{};
            while (semctl(semaphore(), 0, GETNCNT) == 0 && ended.si_pid == 0) {
                waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
            }
            EXPECT_EQ(ended.si_pid, 0) << "did not wait";
            kill(child, SIGUSR1);
            usleep(10000);
            semctl(semaphore(), 0, SETVAL, 1);
            EXPECT_EQ(wait_status(child), 0);
        }
    });
}

void in_threads(int count, const std::function<void(int number)> &body)
{
    std::vector<std::thread> threads;
    for (int number = 1; number <= count; ++number) {
        threads.emplace_back(body, number);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(ClientTable, SeveralThreadsMayCall)
{
    both_ways(8, [] {
        in_threads(8, [](int number) {
            for (int round = 0; round < 300; ++round) {
                EXPECT_EQ(save(record(number, static_cast<u32_t>(round))), 0);
                EXPECT_EQ(look_up(number), round);
                conf_free_client_info(number);
            }
        });
    });
}

// How many operations each worker does; more than the usual number when the variable asks for it.
int operations()
{
    const char *wanted = std::getenv("CONFSVC_TEST_OPERATIONS");
    return wanted == nullptr ? 300 : std::atoi(wanted);
}

// What a worker knows of its record, in memory that outlives it.
struct journal {
    int begun;    // operations
    bool pending; // whether the record is being saved or freed
    int port;     // of the record that stands in the table, 0 for none
};

// One life of a worker, which a timer ends after 20 microseconds or 40 milliseconds or anything
// between, also inside of a call. Returns 0 when all is done, 1 when something went wrong.
int live(volatile journal &own, pid_t pid, unsigned seed)
{
    std::mt19937 random(seed);
    const itimerval end = {{}, {0, 20 << random() % 12}};
    setitimer(ITIMER_REAL, &end, nullptr);
    if (own.pending) { // cut short: there may be a record or not
        conf_free_client_info(pid);
        own.port = 0;
        own.pending = false;
    }
    const int most = operations();
    while (own.begun < most) {
        own.begun = own.begun + 1;
        if (own.port != 0 && random() % 2 == 0) {
            if (look_up(pid) != own.port) {
                return 1;
            }
            continue;
        }
        const int port = own.port != 0 ? 0 : static_cast<int>(1 + random() % 0xffff);
        own.pending = true;
        if (port == 0) {
            conf_free_client_info(pid);
        } else if (save(record(pid, static_cast<u32_t>(port))) != 0) {
            return 1;
        }
        own.port = port;
        own.pending = false;
    }
    return 0;
}

TEST_F(ClientTable, LosesAndDoublesNothingWhenProcessesAreKilled)
{
    constexpr int workers = 8;
    constexpr int others = 100; // records that nobody touches, so that each call takes some time
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    void *memory = mmap(nullptr, (workers + 1) * sizeof(journal), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *journals = static_cast<journal *>(memory);
    both_ways(others + workers, [&] {
        std::fill_n(journals, workers + 1, journal{});
        for (int other = 1; other <= others; ++other) {
            EXPECT_EQ(save(record(-other)), 0);
        }
        std::atomic<unsigned> lives = 0;
        in_threads(workers, [&](int worker) {
            int status = SIGALRM;
            while (status == SIGALRM) { // is how the timer ends a process
                const unsigned life = ++lives;
                status =
                    in_another_process([&] { return live(journals[worker], worker, seed + life); });
            }
            EXPECT_EQ(status, 0) << "an operation gave a wrong result";
        });
        EXPECT_GT(lives, static_cast<unsigned>(workers));
        // The table holds each record of the journals once, whole, and no other.
        const Words words;
        u32_t used = 0;
        for (std::size_t slot = 0; slot < others + workers; ++slot) {
            used += words[Words::flags_of(slot)] & 1U;
        }
        u32_t expected = others;
        for (int worker = 1; worker <= workers; ++worker) {
            const int port = journals[worker].port;
            expected += port != 0 ? 1 : 0;
            EXPECT_TRUE(port == 0 || look_up(worker) == port);
        }
        EXPECT_EQ(used, expected);
    });
    munmap(memory, (workers + 1) * sizeof(journal));
}

} // namespace
