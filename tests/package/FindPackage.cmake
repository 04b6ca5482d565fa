# Builds and runs the consumer through find_package, with nothing but ROOT to look in. A service that makes no sink of spdlog's
# needs none of it, and is told so.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${BUILD_DIR} -DCMAKE_PREFIX_PATH=${ROOT} -DHARDENED=${HARDENED})
if(output MATCHES "Warning|spdlog")
    message(FATAL_ERROR "a service's configuration is warned:\n${output}")
endif()
run(${CMAKE_COMMAND} --build ${BUILD_DIR})
run_consumer(${BUILD_DIR}/consumer)

# Who links the static library has to have spdlog in any case.
if(NOT SHARED)
    return()
endif()
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${BUILD_DIR} -DCMAKE_IGNORE_PATH=/usr/include)
if(NOT output MATCHES "spdlog is missing, which a sink of log/SpdlogSink.h needs, and nothing else")
    message(FATAL_ERROR "a configuration without spdlog says:\n${output}")
endif()
