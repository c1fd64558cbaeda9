// The client table's lock: under threads, and under processes that are killed at any moment and
// begin again.
#include "client_table.h"

#include <cstdlib>
#include <map>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>

using namespace test;

namespace {

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
    const int operations = wanted == nullptr ? 300 : std::atoi(wanted);
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
