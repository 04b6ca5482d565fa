# Builds and runs what uses the components beside the library, through find_package and through pkg-config; arguments as of
# FindPackage.cmake and PkgConfig.cmake.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
foreach(component testing)
    set(source ${CMAKE_CURRENT_LIST_DIR}/${component})
    set(build ${BUILD_DIR}/${component})
    run(${CMAKE_COMMAND} -S ${source} -B ${build} -DCMAKE_PREFIX_PATH=${ROOT})
    run(${CMAKE_COMMAND} --build ${build})
    run(${build}/consumer)

    run(${CMAKE_COMMAND} -E env ${SEARCH}=${ROOT}/${LIBDIR}/pkgconfig
        ${PKG_CONFIG} --cflags --libs haldencpputils_${component})
    separate_arguments(flags UNIX_COMMAND "${output}")
    run(${COMPILER} -std=c++17 ${source}/main.cpp -o ${build}/by-pkg-config ${flags})
    run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${ROOT}/${LIBDIR} ${build}/by-pkg-config)
endforeach()
