// What every fuzz target's process is: in private namespaces, without a system log, and with an
// allocator that finds faults at little cost.
#include "fuzz.h"
#include "sandbox.h"

#include <libxml/xmlerror.h>

// Freed memory is kept from use for long enough, without touching fresh pages all the time. Where
// memory came from is told by a second run with ASAN_OPTIONS=malloc_context_size=30.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=1:thread_local_quarantine_size_kb=256:malloc_context_size=1"
           ":max_malloc_fill_size=256:allocator_may_return_null=1";
}

// The system log has no reader here.
extern "C" void __wrap_syslog(int /*priority*/, const char * /*format*/, ...) {}

// The library's fixed paths, sockets and the debug file belong to this process alone from here on.
extern "C" int LLVMFuzzerInitialize(int *count, char ***arguments)
{
    xmlSetStructuredErrorFunc(nullptr, [](void *, xmlError *) {}); // malformed texts are many
    sandbox::options options;
    options.keep.assign(*arguments + 1, *arguments + *count);
    std::string error;
    MUST(sandbox::enter(options, error), error);
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}
