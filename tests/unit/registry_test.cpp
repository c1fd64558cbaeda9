// The registry: one record a process, filed under its id.
#include "conf_plugin.h"
#include "test_support.h"

#include <sys/wait.h>
#include <unistd.h>

using namespace test;

namespace {

// The record follows a key of any length inside its hash entry.
static_assert(alignof(conf_plugin_data) == 1 && sizeof(conf_plugin_data) == 2 * sizeof(void *));

using RegistryTest = Fixture;

conf_plugin_data *filed(pid_t process)
{
    std::string key = "plugin_tid_" + std::to_string(process);
    return static_cast<conf_plugin_data *>(conf_hash_get(g_plugin_hash, key.data()));
}

bool is_empty(const conf_plugin_data *record)
{
    return record != nullptr && record->plugin_ctxt == nullptr && record->confd_hooks == nullptr;
}

TEST_F(RegistryTest, FilesOneEmptyRecordUnderTheProcess)
{
    ASSERT_EQ(g_plugin_hash, nullptr) << "this test comes first";
    del_plugin_from_hash(); // no table yet
    EXPECT_EQ(get_plugin_hooks(), nullptr);
    ASSERT_NE(g_plugin_hash, nullptr);
    EXPECT_EQ(g_plugin_hash->num, 8U);
    EXPECT_TRUE(is_empty(filed(getpid())));
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(get_plugin_from_hash(), filed(getpid()));

    const std::string made = "Hash key = plugin_tid_" + std::to_string(getpid()) + ".";
    EXPECT_EQ(debug_texts(DBG_INFO), strings{made});

    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    EXPECT_EQ(get_plugin_hooks(), &hooks);
    del_plugin_from_hash();
    EXPECT_EQ(filed(getpid()), nullptr);
    del_plugin_from_hash(); // no record
    EXPECT_TRUE(is_empty(get_plugin_from_hash()));
    EXPECT_EQ(debug_texts(DBG_INFO), (strings{made, made}));
    del_plugin_from_hash();
}

TEST_F(RegistryTest, ForkedChildHasARecordOfItsOwn)
{
    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    const pid_t parent = getpid();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool apart = is_empty(get_plugin_from_hash()) && get_plugin_hooks() == nullptr &&
                           filed(getpid()) != filed(parent);
        del_plugin_from_hash();
        _exit(apart && filed(parent) != nullptr && filed(parent)->confd_hooks == &hooks ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(get_plugin_hooks(), &hooks);
    del_plugin_from_hash();
}

} // namespace
