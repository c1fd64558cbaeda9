// The socket that stands at /dev/log inside the sandbox of a test program.
#ifndef CONFSVC_TEST_MAIN_H
#define CONFSVC_TEST_MAIN_H

namespace test {

int system_log_socket();

} // namespace test

#endif
