# The checks of the sources, as tests with the label "lint". They need nothing built. One build of
# several has them, since they are the same for all.
function(confsvc_check name)
    add_test(NAME lint.${name} COMMAND ${ARGN})
    set_tests_properties(lint.${name} PROPERTIES LABELS lint TIMEOUT 1200)
endfunction()

cmake_host_system_information(RESULT cores QUERY NUMBER_OF_LOGICAL_CORES)

confsvc_check(tidy ${PROJECT_SOURCE_DIR}/scripts/check-tidy.sh ${PROJECT_BINARY_DIR})
set_tests_properties(lint.tidy PROPERTIES PROCESSORS ${cores})
confsvc_check(format ${PROJECT_SOURCE_DIR}/scripts/check-format.sh)
confsvc_check(house_rules ${PROJECT_SOURCE_DIR}/scripts/house-rules.sh)
confsvc_check(headers ${PROJECT_SOURCE_DIR}/tests/abi/headers.sh ${PROJECT_SOURCE_DIR}
              ${PROJECT_BINARY_DIR}/headers)
# The record is of the layout on this kind of machine.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
    confsvc_check(abi ${PROJECT_SOURCE_DIR}/tests/abi/abi.sh ${PROJECT_SOURCE_DIR})
    confsvc_check(abi_breaks ${PROJECT_SOURCE_DIR}/tests/abi/abi-breaks.sh ${PROJECT_SOURCE_DIR})
endif()
