# Builds and runs what uses the COMPONENTS beside the library, through find_package and through pkg-config; the other
# arguments are those of FindPackage.cmake and PkgConfig.cmake. What the components need is the system's.

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

file(REMOVE_RECURSE ${BUILD_DIR})
foreach(component IN LISTS COMPONENTS)
    set(source ${CMAKE_CURRENT_LIST_DIR}/${component})
    set(build ${BUILD_DIR}/${component})
    run(${CMAKE_COMMAND} -S ${source} -B ${build} -DCMAKE_PREFIX_PATH=${ROOT})
    run(${CMAKE_COMMAND} --build ${build})
    run(${build}/consumer)

    run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${ROOT}/${LIBDIR}/pkgconfig
        ${PKG_CONFIG} --cflags --libs haldencpputils_${component})
    separate_arguments(flags UNIX_COMMAND "${output}")
    run(${COMPILER} -std=c++17 ${source}/main.cpp -o ${build}/by-pkg-config ${flags})
    run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${ROOT}/${LIBDIR} ${build}/by-pkg-config)
endforeach()
