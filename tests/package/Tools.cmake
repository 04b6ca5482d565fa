# Runs the installed tools, which find the library beside them, under the names that they have there.
#
# ROOT  where they are installed

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

foreach(tool IN ITEMS halden-addresses halden-clock-trust halden-firmware halden-route-to halden-run-program)
    run(${ROOT}/bin/${tool} --version)
    if(NOT output MATCHES "^${tool} \\(haldencpputils\\) [0-9.]+\n$")
        message(FATAL_ERROR "${tool} says that it is ${output}")
    endif()
    execute_process(COMMAND ${ROOT}/bin/${tool} --nonsense RESULT_VARIABLE result ERROR_VARIABLE error)
    if(NOT result EQUAL 2 OR NOT error MATCHES "^${tool}: [^\n]+\n$")
        message(FATAL_ERROR "${tool} answers nonsense with ${result}:\n${error}")
    endif()
    if(NOT EXISTS ${ROOT}/share/man/man1/${tool}.1)
        message(FATAL_ERROR "${tool} has no page")
    endif()
endforeach()
run(${ROOT}/bin/halden-run-program ${CMAKE_COMMAND} -E echo text)
if(NOT output STREQUAL "text\n")
    message(FATAL_ERROR "halden-run-program has shown ${output}")
endif()
