# A project that contains this one is left alone: its libraries are built as ever, and nothing is installed unasked.
#
# SOURCE_DIR, BUILD_DIR  this project, and a folder that is emptied first

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/guest -B ${BUILD_DIR} -DHALDEN_SOURCE=${SOURCE_DIR})
run(${CMAKE_COMMAND} --build ${BUILD_DIR} --target own)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${BUILD_DIR}/root)
file(GLOB_RECURSE installed RELATIVE ${BUILD_DIR}/root ${BUILD_DIR}/root/*)
if(NOT installed MATCHES "^[^;]*libown\\.a$")
    message(FATAL_ERROR "installed is ${installed}")
endif()
