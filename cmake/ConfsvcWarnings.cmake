# The warnings that every file of the project is compiled with, as errors.
add_library(confsvc_warnings INTERFACE)
target_compile_options(confsvc_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
                                                  -Werror)
# g++ 12 sees overlapping copies where the standard library joins a literal and a string
# (its bug 105651, gone in version 13).
target_compile_options(confsvc_warnings INTERFACE
    $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
