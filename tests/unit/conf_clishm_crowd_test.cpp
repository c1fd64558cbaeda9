// The client table under many processes that are killed at any moment and begin again.
#include "client_table.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <random>
#include <sys/mman.h>

using namespace test;

namespace {

constexpr int workers = 8;
constexpr std::size_t keys = 16; // processes that a worker saves records for

// What a worker knows, in memory that outlives it.
struct journal {
    int done;       // operations
    int pending;    // the key being saved or freed, or -1
    int port[keys]; // of the record that stands in the table, 0 for none
};

pid_t pid_of(int worker, std::size_t key)
{
    return worker * 1000 + static_cast<pid_t>(key) + 1;
}

// The kernel kills this process some time from now, also inside of a call: after 20 microseconds or
// 40 milliseconds, or anything between.
void die_at_random(std::mt19937 &random)
{
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer{};
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    itimerspec when{};
    when.it_value.tv_nsec = 20000L << random() % 12;
    timer_settime(timer, 0, &when, nullptr);
}

// One life of a worker. Returns 0 when all operations are done, 1 when one went wrong.
int live(volatile journal &own, int worker, int operations, unsigned seed)
{
    std::mt19937 random(seed);
    die_at_random(random);
    if (own.pending >= 0) { // cut short: there may be a record or not
        const auto key = static_cast<std::size_t>(own.pending);
        conf_free_client_info(pid_of(worker, key));
        own.port[key] = 0;
        own.pending = -1;
    }
    while (own.done < operations) {
        const std::size_t key = random() % keys;
        const pid_t pid = pid_of(worker, key);
        const int port = static_cast<int>(1 + random() % 0xffff);
        if (own.port[key] == 0) {
            own.pending = static_cast<int>(key);
            if (save(record(pid, static_cast<u32_t>(port))) != 0) {
                return 1;
            }
            own.port[key] = port;
        } else if (random() % 2 == 0) {
            own.pending = static_cast<int>(key);
            conf_free_client_info(pid);
            own.port[key] = 0;
        } else if (look_up(pid) != own.port[key]) {
            return 1;
        }
        own.pending = -1;
        own.done = own.done + 1;
    }
    return 0;
}

class ManyProcesses : public ClientTableFixture {
protected:
    static void run(int operations)
    {
        const unsigned seed = std::random_device{}();
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 random(seed);
        void *memory = mmap(nullptr, workers * sizeof(journal), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto *journals = static_cast<journal *>(memory);
        both_ways(workers * static_cast<int>(keys), [&] {
            for (int worker = 0; worker < workers; ++worker) {
                journals[worker] = {0, -1, {}};
            }
            const int kills = live_and_die(journals, operations, random);
            EXPECT_GT(kills, 0);
            std::cout << workers << " x " << operations << " operations, " << kills << " kills\n";
            compare(journals);
        });
        munmap(memory, workers * sizeof(journal));
    }

private:
    // Until each worker has done its operations, over many lives. Returns how many were cut short.
    static int live_and_die(journal *journals, int operations, std::mt19937 &random)
    {
        std::array<pid_t, workers> processes{};
        const auto begin_life = [&](int worker) {
            const auto seed = static_cast<unsigned>(random());
            processes[static_cast<std::size_t>(worker)] =
                start_process([=] { return live(journals[worker], worker, operations, seed); });
        };
        for (int worker = 0; worker < workers; ++worker) {
            begin_life(worker);
        }
        int kills = 0;
        for (int left = workers; left > 0;) {
            int status = 0;
            const pid_t process = wait(&status);
            const auto found = std::find(processes.begin(), processes.end(), process);
            if (found == processes.end()) {
                ADD_FAILURE() << "no process left, but workers";
                return kills;
            }
            if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
                ++kills;
                begin_life(static_cast<int>(found - processes.begin()));
            } else {
                EXPECT_EQ(status, 0) << "an operation gave a wrong result";
                --left;
            }
        }
        return kills;
    }

    // The table holds each record of the journals once, whole, and no other.
    static void compare(const journal *journals)
    {
        const Words words;
        std::size_t used = 0;
        for (std::size_t slot = 0; slot < workers * keys; ++slot) {
            used += words[Words::flags_of(slot)] & 1U;
        }
        std::size_t known = 0;
        for (int worker = 0; worker < workers; ++worker) {
            for (std::size_t key = 0; key < keys; ++key) {
                if (const int port = journals[worker].port[key]; port != 0) {
                    ++known;
                    EXPECT_EQ(look_up(pid_of(worker, key)), port);
                }
            }
        }
        EXPECT_EQ(used, known);
        shmid_ds status{};
        ASSERT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_nattch, static_cast<shmatt_t>(attached_segments()));
    }
};

TEST_F(ManyProcesses, LoseAndDoubleNothingWhenSomeAreKilled)
{
    run(500);
}

// The long form: --gtest_also_run_disabled_tests --gtest_filter='*LongForm*'
TEST_F(ManyProcesses, DISABLED_LongForm)
{
    run(10000);
}

} // namespace
