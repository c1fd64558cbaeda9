// The endpoint profile with any content: refused with all paths as before, or read; and in a sound
// profile the last directory counts.
#include "conf_plugin.h"
#include "fuzz.h"

#include <cJSON.h>
#include <filesystem>
#include <fstream>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const bool is_sound = in.ConsumeBool();
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> members(cJSON_CreateObject(),
                                                                  cJSON_Delete);
    std::string last = "-";
    while (is_sound && !in.ended()) {
        std::string value = in.text(300);
        std::replace_if(
            value.begin(), value.end(), [](char c) { return c <= 0; }, '_');
        const bool is_used = in.ConsumeBool();
        cJSON_AddStringToObject(members.get(), is_used ? "working-dir" : "x", value.c_str());
        last = is_used ? value : last;
    }
    char *printed = cJSON_Print(members.get());
    std::string profile = is_sound ? printed : in.stretched(in.ConsumeRemainingBytesAsString());
    free(printed);
    profile.resize(std::min<std::size_t>(profile.size(), 1000000));
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::ofstream("/dev/shm/yang_modules/confd.conf") << profile;

    const std::pair<char *, const char *> paths[] = {
        {g_conf_agent_socket, "/confd.agent.socket"},
        {g_conf_plugin_socket, "/confd.plugin.socket"},
        {g_conf_notifier_socket, "/confd.notifier.socket"}};
    for (const auto &[path, file] : paths) {
        std::strcpy(path, "before");
    }
    char *given = strdup("-");
    const int result = conf_load_config(&given);
    const std::string directory = given;
    free(given);
    MUST(!is_sound || (result == 0 && directory == last), directory);
    MUST(result == 0 || directory == "-", directory);
    for (const auto &[path, file] : paths) {
        const bool is_kept = directory == "-" && path == std::string("before");
        MUST(is_kept || path == (directory + file).substr(0, 255), path);
    }
    return 0;
}
