// A plugin in asio. The descriptor stays the supervisor's: asio releases it at the end.
#include "plugin.h"

#include <asio.hpp>
#include <cstdio>
#include <exception>

namespace {

int result = 1;

void watch(asio::posix::stream_descriptor &input, econf_supervisor_t *plugin)
{
    input.async_wait(asio::posix::stream_descriptor::wait_read,
                     [&input, plugin](const asio::error_code &error) {
                         result = error ? -1 : econf_supervisor_process(plugin);
                         if (result == 1) {
                             watch(input, plugin);
                         }
                     });
}

} // namespace

int main()
try {
    econf_supervisor_t *plugin = make_plugin();
    asio::io_context loop;
    asio::posix::stream_descriptor input(loop, econf_supervisor_fd(plugin));
    watch(input, plugin);
    loop.run();
    input.release();
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
