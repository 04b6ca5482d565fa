# Compiles the examples in the comments of the public headers, and sees that one which does not compile is named.
#
# DIRECTORIES         the headers
# SYSTEM_DIRECTORIES  what the examples use besides
# COMPILER            compiles them
# BUILD_DIR           emptied first

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
file(MAKE_DIRECTORY ${BUILD_DIR})
set(compile ${COMPILER} -std=c++17 -fsyntax-only -Werror)
foreach(directory IN LISTS DIRECTORIES)
    list(APPEND compile -I${directory})
    list(APPEND patterns ${directory}/*.h)
endforeach()
foreach(directory IN LISTS SYSTEM_DIRECTORIES)
    list(APPEND compile -isystem ${directory})
endforeach()
file(GLOB_RECURSE headers ${patterns})

run(${CMAKE_CURRENT_LIST_DIR}/header-examples ${headers})
string(REGEX MATCHALL "void example[0-9]+" examples "${output}")
list(LENGTH examples count)
if(count LESS 25)
    message(FATAL_ERROR "only ${count} examples are found")
endif()
file(WRITE ${BUILD_DIR}/examples.cpp "${output}")
run(${compile} -include ${CMAKE_CURRENT_LIST_DIR}/HeaderExamples.h ${BUILD_DIR}/examples.cpp)

file(WRITE ${BUILD_DIR}/Broken.h "/// Adds.\n///\n///     int sum = 2 + 3;\n///     sum += four;\nclass Sum;\n")
run(${CMAKE_CURRENT_LIST_DIR}/header-examples ${BUILD_DIR}/Broken.h)
file(WRITE ${BUILD_DIR}/broken.cpp "${output}")
execute_process(COMMAND ${compile} ${BUILD_DIR}/broken.cpp RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(result EQUAL 0 OR NOT output MATCHES "/Broken\\.h:4:[0-9]+: error:")
    message(FATAL_ERROR "an example that does not compile is not named, but:\n${output}")
endif()
