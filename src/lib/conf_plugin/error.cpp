// The error that the next reply carries: recorded by a callback or by the event loop, sent and
// released by reply.cpp.
#include "plugin_internal.h"
#include "support/bounded.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

char def_err_msg[] = "Service process failed.";

char *print_whole(const char *format, std::va_list arguments)
{
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    char *text = length < 0 ? nullptr : static_cast<char *>(malloc(size));
    if (text != nullptr && std::vsnprintf(text, size, format, arguments) < 0) {
        free(text);
        text = nullptr;
    }
    return text;
}

void release_error_text(char *err_msg)
{
    if (err_msg != nullptr && err_msg != def_err_msg) {
        support::wipe(err_msg, std::strlen(err_msg));
        free(err_msg);
    }
}

void _plugin_set_error(conf_plugin_data *plugin, int err_code, const char *err_msg, ...)
{
    conf_plugin_context_t *ctxt = plugin->plugin_ctxt;
    char *text = nullptr;
    if (err_msg != nullptr) {
        std::va_list arguments;
        va_start(arguments, err_msg);
        text = print_whole(err_msg, arguments);
        va_end(arguments);
    }
    release_error_text(ctxt->err_msg); // last: the arguments may point into it
    ctxt->err_code = err_code;
    ctxt->err_msg = text != nullptr ? text : def_err_msg;
}

void clear_error(conf_plugin_context_t *ctxt)
{
    ctxt->err_code = 0;
    release_error_text(std::exchange(ctxt->err_msg, nullptr));
}
