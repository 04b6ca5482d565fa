# Installs the project to ROOT, as a packager does: staged with DESTDIR, then moved elsewhere, so that what the package says
# about its place must be relative.
#
# SOURCE_DIR, ROOT, BUILD_DIR  the project, where to install it, where to build it; the latter two are emptied first
# BUILT                        the project's build of the same kind, if there is one: it is installed instead
# LIBDIR                       the folder of the libraries below ROOT
# SHARED, HARDENED             ON or OFF
# METRICS                      ON to have that component, too
# INSTALLED_LOGGER             ON to install the logging library first, from its own folder alone, and let the project
#                              find it there; else with all components

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

set(prefix /opt/halden)

function(stage build prefix)
    run(${CMAKE_COMMAND} -E env DESTDIR=${BUILD_DIR}/stage ${CMAKE_COMMAND} --install ${build} --prefix ${prefix})
    file(COPY ${BUILD_DIR}/stage${prefix}/ DESTINATION ${ROOT})
endfunction()

function(install_staged source name)
    set(build ${BUILD_DIR}/${name})
    run(${CMAKE_COMMAND} -S ${source} -B ${build}
        -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=${prefix} -DCMAKE_INSTALL_LIBDIR=${LIBDIR}
        -DBUILD_SHARED_LIBS=${SHARED} -DHALDEN_HARDENED=${HARDENED} ${ARGN})
    run(${CMAKE_COMMAND} --build ${build})
    stage(${build} ${prefix}/${name})
endfunction()

file(REMOVE_RECURSE ${ROOT} ${BUILD_DIR})
if(INSTALLED_LOGGER)
    file(COPY ${SOURCE_DIR}/logger DESTINATION ${BUILD_DIR}/alone)
    install_staged(${BUILD_DIR}/alone/logger logger)
    install_staged(${SOURCE_DIR} project -DHALDEN_USE_INSTALLED_LOGGER=ON -DCMAKE_PREFIX_PATH=${ROOT})
    if(EXISTS ${BUILD_DIR}/stage${prefix}/project/include/log)
        message(FATAL_ERROR "the project has installed a logging library of its own")
    endif()
    if(EXISTS ${BUILD_DIR}/stage${prefix}/project/include/utils/testing)
        message(FATAL_ERROR "the project has installed a component that nobody has asked for")
    endif()
elseif(BUILT)
    stage(${BUILT} ${prefix})
else()
    install_staged(${SOURCE_DIR} project -DHALDEN_BUILD_TESTING_LIBRARY=ON -DHALDEN_BUILD_METRICS=${METRICS})
endif()
