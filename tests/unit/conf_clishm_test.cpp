// The client table: its bytes, both ways of use, and what is reported when something fails.
#include "client_table.h"
#include "memory_limits.h"

#include <algorithm>
#include <optional>

using namespace test;

namespace {

constexpr const char *key_file_away = "/mnt/squash/confd.conf";
const std::string lock_failed = "<12>[WARN] Try to lock share memory failed(Invalid argument).\n";

TEST_F(ClientTable, KeepsRecordsByProcess)
{
    both_ways(2, [] {
        EXPECT_EQ(save(record(5, 50)), 0);
        EXPECT_EQ(save(record(6, 60)), 0);
        refused(save(record(7, 70)), -1, "Share memory for client info is full(2).");
        EXPECT_EQ(look_up(5), 50);
        EXPECT_EQ(look_up(6), 60);

        const Words words;
        conf_free_client_info(5);
        conf_free_client_info(5); // there is none any more, which is not reported
        EXPECT_EQ(words[1], 5U) << "the slot keeps its bytes";
        refused(look_up(5), -1, "<12>[WARN] Get client info from sshd(5) failed.");
        EXPECT_EQ(save(record(8, 80)), 0);
        EXPECT_EQ(words[1], 8U) << "the first free slot";

        // Two records of one process: the lower one comes first.
        conf_free_client_info(8);
        EXPECT_EQ(save(record(6, 61)), 0);
        EXPECT_EQ(look_up(6), 61);
        conf_free_client_info(6);
        EXPECT_EQ(look_up(6), 60);
    });
}

TEST_F(ClientTable, LaysOutTheFlagsWord)
{
    static constexpr struct {
        u32_t valid, ipv6, port, reserved, stored;
    } rows[] = {
        {0, 0, 0x8001, 0, 0x00020005}, {1, 0, 0x8001, 0, 0x00020005},
        {0, 1, 0, 0, 0x00000003},      {0, 0, 0xffff, 0, 0x0003fffd},
        {0, 0, 0, 0x3fff, 0xfffc0001}, {1, 1, 22, 0x2001, 0x8004005b},
    };
    both_ways(std::size(rows), [] {
        const Words words;
        for (std::size_t slot = 0; slot < std::size(rows); ++slot) {
            const auto &row = rows[slot];
            const auto pid = static_cast<pid_t>(slot) - 3; // the sign is kept
            conf_cli_info_t info = record(pid, row.port);
            info.valid = row.valid & 1U;
            info.ipv6 = row.ipv6 & 1U;
            info.reserved = row.reserved & 0x3fffU;
            EXPECT_EQ(conf_save_client_info(&info), 0);
            const std::size_t flags = Words::flags_of(slot);
            EXPECT_EQ(static_cast<pid_t>(words[flags - 1]), pid);
            EXPECT_EQ(words[flags], row.stored);
            EXPECT_EQ(std::memcmp(&words[flags + 1], info.addr_buf, 16), 0);
            EXPECT_EQ(conf_get_client_info(pid, &info), 0);
            EXPECT_EQ(std::memcmp(&words[flags - 1], &info, sizeof info), 0);
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
        refused(save(record(7)), -1, "Share memory for client info is full(2).");
        refused(look_up(7), -1, "<12>[WARN] Get client info from sshd(7) failed.");
        conf_free_client_info(7);
        conf_free_client_info(6);
        conf_free_client_info(5);
    }
}

TEST_F(ClientTable, IsCreatedEmptyAndReplacesWhatAnEarlierRunLeft)
{
    refused(conf_clishm_create(0), -1, "Input parameter is not valid(num=0).");
    refused(conf_clishm_create(-1), -1, "Input parameter is not valid(num=-1).");
    for (const bool by_this_process : {false, true}) {
        SCOPED_TRACE(by_this_process);
        ASSERT_EQ(by_this_process ? conf_clishm_create(9) : create_elsewhere(9), 0);
        EXPECT_EQ(save(record(5)), 0);
        refused(conf_clishm_create(3), -1,
                "Allocate share memory for client-info failed(File exists).");
        expect_no_table();

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
        EXPECT_EQ(std::count(&words[1], &words[1 + 3 * 6], 0), 3 * 6);
        conf_clishm_destroy();
    }
    // A semaphore alone is in the way as well, and goes too.
    ASSERT_GE(semget(ftok(key_file, 0), 1, IPC_CREAT | 0600), 0);
    refused(conf_clishm_create(3), -1, "Allocate semaphore for client-info failed(File exists).");
    expect_no_table();
}

TEST_F(ClientTable, CanBeRemovedAndCreatedAnewByAnyProcess)
{
    ASSERT_EQ(conf_clishm_create(3), 0);
    EXPECT_EQ(in_another_process([] { return conf_clishm_destroy(), 0; }), 0);
    EXPECT_EQ(segment(), -1);
    EXPECT_EQ(semaphore(), -1);
    refused(save(record(5)), -1, lock_failed + "Share memory for client info is full(3).");
    ASSERT_EQ(conf_clishm_create(1), 0);
    EXPECT_EQ(attached_segments(), 1) << "the older one has been left";
    EXPECT_EQ(save(record(5)), 0);
}

TEST_F(ClientTable, ReportsWhatFails)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr int large = static_cast<int>(AddressSpaceLimit::slack / 24) + 1;
    std::optional<AddressSpaceLimit> limit;
    const std::string no_room =
        "Attach share memory of client-info failed(Cannot allocate memory).";
    const std::string no_file = "failed(No such file or directory).\n";
    const struct {
        const char *name;
        std::function<void()> prepare;
        std::string cause; // reported by each call first
        int capacity;
    } rows[] = {
        {"no key file", [] { std::filesystem::rename(key_file, key_file_away); },
         "Generated share memory key " + no_file + lock_failed, 0},
        {"no table", [] { std::filesystem::rename(key_file_away, key_file); },
         "Get share memory of client-info " + no_file + lock_failed, 0},
        {"no semaphore", [] { create_elsewhere(2), semctl(semaphore(), 0, IPC_RMID); },
         "Get semaphore of client-info " + no_file + lock_failed, 0},
        {"no room to attach", [&] { create_elsewhere(large), limit.emplace(); },
         no_room + "\n" + lock_failed, 0},
        {"semaphore removed, attached",
         [] { conf_clishm_create(2), semctl(semaphore(), 0, IPC_RMID); }, lock_failed, 2},
        {"capacity 0", [] { create_elsewhere(2), Words()[0] = 0; }, "", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare();
        refused(save(record(99)), -1,
                row.cause + "Share memory for client info is full(" + std::to_string(row.capacity) +
                    ").");
        refused(look_up(99), -1, row.cause + "<12>[WARN] Get client info from sshd(99) failed.");
        conf_free_client_info(99);
        EXPECT_EQ(take_reports(), row.cause);
        limit.reset();
        EXPECT_TRUE(semaphore() == -1 || semctl(semaphore(), 0, GETVAL) == 1);
        if (!std::filesystem::exists(key_file)) {
            EXPECT_EQ(conf_clishm_create(1), -1);
            EXPECT_EQ(take_reports(), "Generated share memory key " + no_file);
        }
        conf_clishm_destroy();
        EXPECT_EQ(attached_segments(), 0);
    }
    refused(conf_save_client_info(nullptr), -1, "Input parameter is not valid.");
    refused(conf_get_client_info(99, nullptr), -1, "Input parameter is not valid.");
    limit.emplace();
    refused(conf_clishm_create(large), -1, no_room);
    limit.reset();
    expect_no_table();
}

} // namespace
