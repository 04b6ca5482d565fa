# Builds and runs the consumer through pkg-config. A shared library must do without the modules of what it is made of,
# so SEARCH is PKG_CONFIG_LIBDIR there, which rules out the system's.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
file(MAKE_DIRECTORY ${BUILD_DIR})
run(${CMAKE_COMMAND} -E env ${SEARCH}=${ROOT}/${LIBDIR}/pkgconfig ${PKG_CONFIG} --cflags --libs haldencpputils)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CMAKE_COMMAND} -E env ${SEARCH}=${ROOT}/${LIBDIR}/pkgconfig ${PKG_CONFIG} --variable=hardened haldencpputils)
string(STRIP "${output}" hardened)
if((HARDENED AND NOT hardened STREQUAL "true") OR (NOT HARDENED AND NOT hardened STREQUAL "false"))
    message(FATAL_ERROR "HARDENED is ${HARDENED}, but the module says ${hardened}")
endif()
run(${COMPILER} -std=c++17 ${CMAKE_CURRENT_LIST_DIR}/consumer/main.cpp -o ${BUILD_DIR}/consumer ${flags})
run_consumer(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${ROOT}/${LIBDIR} ${BUILD_DIR}/consumer)
