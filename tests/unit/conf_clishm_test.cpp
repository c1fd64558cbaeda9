// The client table: its bytes and its records, in both ways of use.
#include "client_table.h"

#include <algorithm>

using namespace test;

TEST_F(ClientTable, KeepsRecordsByProcess)
{
    both_ways(2, [] {
        EXPECT_TRUE(save(record(5, 50)) == 0 && save(record(6, 60)) == 0);
        refused(save(record(7, 70)), -1, "Share memory for client info is full(2).");
        EXPECT_TRUE(look_up(5) == 50 && look_up(6) == 60);

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
        EXPECT_TRUE(words[1] == 0xfffffffdU && words[2] == 0x80060007U) << std::hex << words[2];
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
        EXPECT_EQ(shmctl(segment(), IPC_STAT, &status) + semctl(semaphore(), 0, IPC_STAT, &set), 0);
        EXPECT_TRUE(status.shm_segsz == 4 + 3 * 24 && (status.shm_perm.mode & 0777U) == 0660U);
        EXPECT_TRUE(set.sem_nsems == 1 && (set.sem_perm.mode & 0777U) == 0660U);
        const Words words;
        EXPECT_TRUE(words[0] == 3 && std::count(&words[1], &words[1 + 3 * 6], 0) == 3 * 6);
        conf_clishm_destroy();
    }
}

TEST_F(ClientTable, CanBeRemovedAndCreatedAnewByAnyProcess)
{
    ASSERT_EQ(conf_clishm_create(3), 0);
    EXPECT_EQ(in_another_process([] { return conf_clishm_destroy(), 0; }), 0);
    EXPECT_TRUE(segment() == -1 && semaphore() == -1);
    refused(save(record(5)), -1,
            "<12>[WARN] Try to lock share memory failed(Invalid argument).\n"
            "Share memory for client info is full(3).");
    ASSERT_EQ(conf_clishm_create(1), 0);
    EXPECT_EQ(attached_segments(), 1) << "the older one has been left";
    EXPECT_EQ(save(record(5)), 0);
}
