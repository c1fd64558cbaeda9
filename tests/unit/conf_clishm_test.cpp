// The client table: its bytes, both ways of use, its lock, and what is reported when something
// fails.
#include "address_space_limit.h"
#include "client_table.h"

#include <atomic>
#include <optional>
#include <sys/mman.h>
#include <thread>

using namespace test;

namespace {

constexpr const char *key_file_away = "/mnt/squash/confd.conf";
const std::string lock_failed = "<12>[WARN] Try to lock share memory failed(Invalid argument).";

using ClientTable = ClientTableFixture;

// ---- records -----------------------------------------------------------------------------------

TEST_F(ClientTable, KeepsRecordsByProcess)
{
    both_ways(2, [] {
        EXPECT_EQ(save(record(5, 50)), 0);
        EXPECT_EQ(save(record(6, 60)), 0);
        EXPECT_EQ(save(record(7, 70)), -1);
        EXPECT_EQ(take_system_texts(),
                  texts{"<11>[ERROR] Share memory for client info is full(2)."});
        EXPECT_EQ(look_up(5), 50);
        EXPECT_EQ(look_up(6), 60);

        const Words words;
        conf_free_client_info(5);
        conf_free_client_info(5); // there is none any more, which is not reported
        EXPECT_EQ(words[1], 5U) << "the slot keeps its bytes";
        EXPECT_EQ(look_up(5), -1);
        EXPECT_EQ(take_system_texts(), texts{"<12>[WARN] Get client info from sshd(5) failed."});
        EXPECT_EQ(save(record(8, 80)), 0);
        EXPECT_EQ(words[1], 8U) << "the first free slot";

        // Two records of one process: the lower one comes first.
        conf_free_client_info(8);
        EXPECT_EQ(save(record(6, 61)), 0);
        EXPECT_EQ(look_up(6), 61);
        conf_free_client_info(6);
        EXPECT_EQ(look_up(6), 60);
        conf_free_client_info(6);
        EXPECT_EQ(words[Words::flags_of(0)] & 1U, 0U);
        EXPECT_EQ(words[Words::flags_of(1)] & 1U, 0U);
    });
    EXPECT_EQ(take_system_texts(), texts());
}

TEST_F(ClientTable, LaysOutTheFlagsWord)
{
    struct flags {
        u32_t valid, ipv6, port, reserved, stored;
    };
    static constexpr flags rows[] = {
        {0, 0, 0x8001, 0, 0x00020005}, {1, 0, 0x8001, 0, 0x00020005},
        {0, 1, 0, 0, 0x00000003},      {0, 0, 0xffff, 0, 0x0003fffd},
        {0, 0, 0, 0x3fff, 0xfffc0001}, {1, 1, 22, 0x2001, 0x8004005b},
    };
    both_ways(std::size(rows), [] {
        const Words words;
        EXPECT_EQ(words[0], std::size(rows));
        for (std::size_t slot = 0; slot < std::size(rows); ++slot) {
            const flags &row = rows[slot];
            const auto pid = static_cast<pid_t>(slot) - 3; // the sign is kept
            conf_cli_info_t info = record(pid, row.port);
            info.valid = row.valid & 1U;
            info.ipv6 = row.ipv6 & 1U;
            info.reserved = row.reserved & 0x3fffU;
            EXPECT_EQ(conf_save_client_info(&info), 0);
            EXPECT_EQ(static_cast<pid_t>(words[Words::flags_of(slot) - 1]), pid);
            EXPECT_EQ(words[Words::flags_of(slot)], row.stored);
            EXPECT_EQ(std::memcmp(&words[Words::flags_of(slot) + 1], info.addr_buf, 16), 0);
            conf_cli_info_t found{};
            EXPECT_EQ(conf_get_client_info(pid, &found), 0);
            EXPECT_EQ(std::memcmp(&found, &words[Words::flags_of(slot) - 1], sizeof found), 0);
        }
    });
}

TEST_F(ClientTable, NeverLooksBeyondTheSegment)
{
    ASSERT_EQ(create_elsewhere(2), 0);
    const Words words;
    for (const u32_t capacity : {3U, 1000000U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        SCOPED_TRACE(capacity);
        words[0] = capacity;
        EXPECT_EQ(save(record(5)), 0);
        EXPECT_EQ(save(record(6)), 0);
        EXPECT_EQ(save(record(7)), -1);
        EXPECT_EQ(look_up(7), -1);
        conf_free_client_info(7);
        conf_free_client_info(6);
        conf_free_client_info(5);
        EXPECT_EQ(take_system_texts(),
                  (texts{"<11>[ERROR] Share memory for client info is full(2).",
                         "<12>[WARN] Get client info from sshd(7) failed."}));
    }
}

// ---- the table as a whole ----------------------------------------------------------------------

TEST_F(ClientTable, IsCreatedEmptyAndReplacesWhatAnEarlierRunLeft)
{
    const texts exists = {"<11>[ERROR] Allocate share memory for client-info failed(File exists)."};
    for (const int number : {0, -1}) {
        EXPECT_EQ(conf_clishm_create(number), -1);
        EXPECT_EQ(take_system_texts(), texts{"<11>[ERROR] Input parameter is not valid(num=" +
                                             std::to_string(number) + ")."});
        EXPECT_EQ(segment(), -1);
        EXPECT_EQ(semaphore(), -1);
    }
    for (const bool by_this_process : {false, true}) {
        SCOPED_TRACE(by_this_process);
        ASSERT_EQ(by_this_process ? conf_clishm_create(9) : create_elsewhere(9), 0);
        EXPECT_EQ(save(record(5)), 0);
        EXPECT_EQ(conf_clishm_create(3), -1);
        EXPECT_EQ(take_system_texts(), exists);
        EXPECT_EQ(segment(), -1);
        EXPECT_EQ(semaphore(), -1);
        EXPECT_EQ(attached_segments(), 0);

        ASSERT_EQ(conf_clishm_create(3), 0);
        shmid_ds status{};
        ASSERT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_segsz, 4U + 3 * 24);
        EXPECT_EQ(status.shm_perm.mode & 0777U, 0660U);
        semid_ds set{};
        ASSERT_EQ(semctl(semaphore(), 0, IPC_STAT, &set), 0);
        EXPECT_EQ(set.sem_nsems, 1U);
        EXPECT_EQ(set.sem_perm.mode & 0777U, 0660U);
        EXPECT_EQ(semctl(semaphore(), 0, GETVAL), 1);
        const Words words;
        EXPECT_EQ(words[0], 3U);
        for (std::size_t i = 1; i < 1 + 3 * 6; ++i) {
            EXPECT_EQ(words[i], 0U) << i;
        }
        conf_clishm_destroy();
    }
    // A semaphore alone is in the way as well, and goes too.
    ASSERT_GE(semget(ftok(key_file, 0), 1, IPC_CREAT | 0600), 0);
    EXPECT_EQ(conf_clishm_create(3), -1);
    EXPECT_EQ(take_system_texts(),
              texts{"<11>[ERROR] Allocate semaphore for client-info failed(File exists)."});
    EXPECT_EQ(segment(), -1);
    EXPECT_EQ(semaphore(), -1);
    conf_clishm_destroy();
    EXPECT_EQ(take_system_texts(), texts());
}

TEST_F(ClientTable, CanBeRemovedAndCreatedAnewByAnyProcess)
{
    ASSERT_EQ(conf_clishm_create(3), 0);
    EXPECT_EQ(wait_status(start_process([] {
                  conf_clishm_destroy();
                  return 0;
              })),
              0);
    EXPECT_EQ(segment(), -1);
    EXPECT_EQ(semaphore(), -1);
    EXPECT_EQ(save(record(5)), -1);
    EXPECT_EQ(take_system_texts(),
              (texts{lock_failed, "<11>[ERROR] Share memory for client info is full(3)."}));
    ASSERT_EQ(conf_clishm_create(1), 0);
    EXPECT_EQ(attached_segments(), 1) << "the older one has been left";
    EXPECT_EQ(save(record(5)), 0);
}

TEST_F(ClientTable, ReportsWhatFails)
{
    constexpr int large = static_cast<int>(AddressSpaceLimit::slack / 24) + 1;
    std::optional<AddressSpaceLimit> limit;
    const std::string cannot_attach =
        "<11>[ERROR] Attach share memory of client-info failed(Cannot allocate memory).";
    const std::string no_file = "failed(No such file or directory).";
    const struct {
        const char *name;
        std::function<void()> prepare;
        texts causes; // reported by each call first
        int capacity;
    } rows[] = {
        {"no key file",
         [] { std::filesystem::rename(key_file, key_file_away); },
         {"<11>[ERROR] Generated share memory key " + no_file, lock_failed},
         0},
        {"no table",
         [] {},
         {"<11>[ERROR] Get share memory of client-info " + no_file, lock_failed},
         0},
        {"no semaphore",
         [] {
             create_elsewhere(2);
             semctl(semaphore(), 0, IPC_RMID);
         },
         {"<11>[ERROR] Get semaphore of client-info " + no_file, lock_failed},
         0},
        {"no room to attach",
         [&] {
             create_elsewhere(large);
             limit.emplace();
         },
         {cannot_attach, lock_failed},
         0},
        {"semaphore removed, attached",
         [] {
             conf_clishm_create(2);
             semctl(semaphore(), 0, IPC_RMID);
         },
         {lock_failed},
         2},
        {"capacity 0",
         [] {
             create_elsewhere(2);
             Words()[0] = 0;
         },
         {},
         0},
        {"full",
         [] {
             create_elsewhere(1);
             save(record(5));
         },
         {},
         1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare();
        conf_cli_info_t info = record(99);
        const int saved = conf_save_client_info(&info);
        const int found = conf_get_client_info(99, &info);
        conf_free_client_info(99);
        EXPECT_EQ(conf_save_client_info(nullptr), -1);
        EXPECT_EQ(conf_get_client_info(99, nullptr), -1);
        limit.reset();
        EXPECT_EQ(saved, -1);
        EXPECT_EQ(found, -1);
        texts expected;
        for (const std::string &last :
             {"<11>[ERROR] Share memory for client info is full(" + std::to_string(row.capacity) +
                  ").",
              std::string("<12>[WARN] Get client info from sshd(99) failed."), std::string()}) {
            expected.insert(expected.end(), row.causes.begin(), row.causes.end());
            if (!last.empty()) {
                expected.push_back(last);
            }
        }
        expected.insert(expected.end(), 2, "<11>[ERROR] Input parameter is not valid.");
        EXPECT_EQ(take_system_texts(), expected);
        EXPECT_TRUE(semaphore() == -1 || semctl(semaphore(), 0, GETVAL) == 1);

        if (std::filesystem::exists(key_file_away)) {
            EXPECT_EQ(conf_clishm_create(1), -1);
            EXPECT_EQ(take_system_texts(), texts{row.causes[0]});
            std::filesystem::rename(key_file_away, key_file);
        }
        conf_clishm_destroy();
        EXPECT_EQ(attached_segments(), 0);
    }
    limit.emplace();
    EXPECT_EQ(conf_clishm_create(large), -1);
    limit.reset();
    EXPECT_EQ(take_system_texts(), texts{cannot_attach});
    EXPECT_EQ(segment(), -1);
}

// ---- one lock for all ---------------------------------------------------------------------------

// The record lies where no process can reach it: it dies while it copies.
TEST_F(ClientTable, IsLockedByEachCallAndUnlockedWhenTheCallerDies)
{
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto *nowhere = static_cast<conf_cli_info_t *>(page);
    both_ways(2, [&] {
        EXPECT_EQ(save(record(5, 50)), 0);
        for (const bool saves : {true, false}) {
            const pid_t child = start_process([=] {
                (void)std::signal(SIGSEGV, [](int) {
                    _exit(semctl(semaphore(), 0, GETVAL) == 0 ? 3 : 4); // 0 when it is locked
                });
                return saves ? conf_save_client_info(nowhere) : conf_get_client_info(5, nowhere);
            });
            EXPECT_EQ(WEXITSTATUS(wait_status(child)), 3) << saves;
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
                                          [] {
                                              conf_free_client_info(5);
                                              return 0;
                                          }};
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
    EXPECT_EQ(take_system_texts(), texts());
}

TEST_F(ClientTable, SeveralThreadsMayCall)
{
    constexpr int rounds = 300;
    both_ways(8, [] {
        std::atomic<int> wrong = 0;
        std::vector<std::thread> threads;
        for (int number = 1; number <= 8; ++number) {
            threads.emplace_back([number, &wrong] {
                for (int round = 0; round < rounds; ++round) {
                    wrong += save(record(number, static_cast<u32_t>(round))) != 0 ? 1 : 0;
                    wrong += look_up(number) != round ? 1 : 0;
                    conf_free_client_info(number);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(wrong, 0);
    });
    EXPECT_EQ(take_system_texts(), texts());
}

} // namespace
