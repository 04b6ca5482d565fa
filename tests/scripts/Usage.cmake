# Each script that is called by hand explains itself with --help, and refuses at once what it does not know. Nothing is at
# hand for them but what that takes, so that one that would set to work all the same can do no harm.
#
# SOURCE_DIR, BUILD_DIR  the project, and a folder that is emptied first
# PYTHON                 the program

include(${CMAKE_CURRENT_LIST_DIR}/../package/Run.cmake)

file(GLOB scripts LIST_DIRECTORIES false ${SOURCE_DIR}/scripts/*)
list(FILTER scripts EXCLUDE REGEX "\\.sh$")
file(GLOB_RECURSE pythons ${SOURCE_DIR}/abi/*.py ${SOURCE_DIR}/bench/*.py ${SOURCE_DIR}/tests/coverage/*.py)
list(LENGTH scripts count)
list(LENGTH pythons python_count)
if(count LESS 15 OR python_count LESS 4)
    message(FATAL_ERROR "only ${count} and ${python_count} scripts are found")
endif()

file(REMOVE_RECURSE ${BUILD_DIR})
file(MAKE_DIRECTORY ${BUILD_DIR})
foreach(program IN ITEMS bash dirname sed)
    find_program(${program} ${program} REQUIRED)
    file(CREATE_LINK ${${program}} ${BUILD_DIR}/${program} SYMBOLIC)
endforeach()
run(${PYTHON} -c "print(__import__('sys').executable, end='')") # what was found may be a script
file(CREATE_LINK ${output} ${BUILD_DIR}/python3 SYMBOLIC)
set(ENV{PATH} ${BUILD_DIR})

foreach(script IN LISTS scripts pythons ITEMS ${SOURCE_DIR}/.ci/run)
    set(command ${script})
    if(script MATCHES "\\.py$")
        set(command python3 ${script})
    endif()
    execute_process(COMMAND ${command} --help RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
    if(NOT result EQUAL 0 OR NOT output MATCHES "usage: " OR NOT error STREQUAL "")
        message(SEND_ERROR "${script} --help ends with ${result}:\n${output}${error}")
    endif()
    execute_process(COMMAND ${command} --nonsense RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
    if(NOT result MATCHES "^[12]$" OR NOT output STREQUAL "" OR NOT error MATCHES "unknown argument: --nonsense|^usage: ")
        message(SEND_ERROR "${script} --nonsense ends with ${result}:\n${output}${error}")
    endif()
endforeach()
