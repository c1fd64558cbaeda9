# The warnings that every file of the project is compiled with; with CONFSVC_WERROR, which the
# presets set, they are errors. Other people's compilers may know warnings that ours do not.
add_library(confsvc_warnings INTERFACE)
target_compile_options(confsvc_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(CONFSVC_WERROR)
    target_compile_options(confsvc_warnings INTERFACE -Werror)
endif()
# g++ 12 sees overlapping copies where the standard library joins a literal and a string
# (its bug 105651, gone in version 13).
target_compile_options(confsvc_warnings INTERFACE
    $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
