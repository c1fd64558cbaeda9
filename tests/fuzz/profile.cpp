// The endpoint profile with any content: refused with all paths as before, or read; and in a sound
// profile the last directory counts.
#include "conf_plugin.h"
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <utility>

namespace {

std::string escaped(const std::string &text)
{
    std::string made = "\"";
    for (const char c : text) {
        char code[8];
        std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
        made += c == '"' || c == '\\' || c < ' ' ? code : std::string(1, c);
    }
    return made + '"';
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const bool is_sound = in.ConsumeBool();
    std::string profile = "{";
    std::string last = "-";
    while (is_sound && !in.ended()) {
        std::string value = in.text(300);
        std::replace_if(
            value.begin(), value.end(), [](char c) { return c <= 0; }, '_');
        const bool is_used = in.ConsumeBool();
        profile += (profile.size() > 1 ? "," : "") +
                   std::string(is_used ? "\"working-dir\"" : "\"x\"") + ":" + escaped(value);
        last = is_used ? value : last;
    }
    profile = is_sound ? profile + "}" : in.stretched(in.ConsumeRemainingBytesAsString());
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
    fuzz::require(!is_sound || (result == 0 && directory == last), "not the last directory");
    fuzz::require(result == 0 || directory == "-", "a refused profile is used");
    for (const auto &[path, file] : paths) {
        const bool is_kept = directory == "-" && path == std::string("before");
        fuzz::require(is_kept || path == (directory + file).substr(0, 255), "wrong path", path);
    }
    return 0;
}
