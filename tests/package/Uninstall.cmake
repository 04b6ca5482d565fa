# What was installed is removed again, and nothing else.
#
# BUILD_DIR  a build of the project
# ROOT       where to install it; emptied first

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${ROOT})
file(WRITE ${ROOT}/include/utils/Stranger.h "")
# As an older version has left it: what takes its place must not be written through it.
file(MAKE_DIRECTORY ${ROOT}/lib)
file(CREATE_LINK libhaldencpputils.so.1 ${ROOT}/lib/libhaldencpputils.so SYMBOLIC)

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${ROOT})
run(${CMAKE_COMMAND} -E env DESTDIR=${ROOT}/stage ${CMAKE_COMMAND} --install ${BUILD_DIR})
run(readelf --file-header ${ROOT}/lib/libhaldencpputils.so.1)
if(IS_SYMLINK ${ROOT}/lib/libhaldencpputils.so)
    message(FATAL_ERROR "the linker's script has not replaced the link")
endif()

run(${CMAKE_COMMAND} --build ${BUILD_DIR} --target uninstall)
file(REMOVE_RECURSE ${ROOT}/stage)
file(GLOB_RECURSE left RELATIVE ${ROOT} ${ROOT}/*)
if(NOT left STREQUAL "include/utils/Stranger.h")
    message(FATAL_ERROR "left is ${left}")
endif()
run(${CMAKE_COMMAND} --build ${BUILD_DIR} --target uninstall)
