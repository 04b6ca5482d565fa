# Configures a copy of the examples against the installed library, as somebody does who has them from the documentation's
# package, and builds and runs two of them.
#
# SOURCE_DIR  this project, of which only the examples are used
# ROOT        where the library is installed
# BUILD_DIR   emptied first

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
file(COPY ${SOURCE_DIR}/examples DESTINATION ${BUILD_DIR})
run(${CMAKE_COMMAND} -S ${BUILD_DIR}/examples -B ${BUILD_DIR}/build -DCMAKE_PREFIX_PATH=${ROOT})
if(output MATCHES "Warning")
    message(FATAL_ERROR "the configuration is warned:\n${output}")
endif()
run(${CMAKE_COMMAND} --build ${BUILD_DIR}/build --target route_to sensor_service)
run(${BUILD_DIR}/build/route_to --version)
run(${BUILD_DIR}/build/sensor_service --seconds 1)
if(NOT output MATCHES "readings")
    message(FATAL_ERROR "the service has found nothing:\n${output}")
endif()
