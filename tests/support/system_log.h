// The socket that stands at /dev/log inside the sandbox of a test program.
#ifndef CONFSVC_TEST_SYSTEM_LOG_H
#define CONFSVC_TEST_SYSTEM_LOG_H

namespace test {

// Opens it; false with errno when that fails.
bool open_system_log();

int system_log_socket();

} // namespace test

#endif
