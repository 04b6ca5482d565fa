# Links programs that use nothing, the core, XML, HDF5 and both of these, by each way to the library, and looks at which of
# its libraries they need.
#
# ROOT, LIBDIR      where the library is installed
# COMPILER, LINKER  what links, as CMAKE_CXX_COMPILER and as in -fuse-ld=
# BUILD_DIR         emptied first
# PKG_CONFIG        the program

include(${CMAKE_CURRENT_LIST_DIR}/Run.cmake)

set(sources ${CMAKE_CURRENT_LIST_DIR}/uses)
set(needs_of_nothing "")
set(needs_of_core libhaldencpputils.so.1)
set(needs_of_xml libhaldencpputils-xml.so.1)
set(needs_of_hdf5 libhaldencpputils-hdf5.so.1)
set(needs_of_xml_and_hdf5 libhaldencpputils-hdf5.so.1 libhaldencpputils-xml.so.1)
set(needs_of_component_xml libhaldencpputils-xml.so.1)

# check(program path [command...]): the command runs the program.
function(check program path)
    run(readelf --dynamic ${path})
    string(REGEX MATCHALL "libhaldencpputils[^]]*" needs "${output}")
    list(SORT needs)
    if(NOT needs STREQUAL needs_of_${program})
        message(FATAL_ERROR "${path} needs \"${needs}\", not \"${needs_of_${program}}\"")
    endif()
    run(${ARGN} ${path})
endfunction()

file(REMOVE_RECURSE ${BUILD_DIR})
run(${CMAKE_COMMAND} -S ${sources} -B ${BUILD_DIR} -DCMAKE_PREFIX_PATH=${ROOT} -DCMAKE_CXX_COMPILER=${COMPILER}
    -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=${LINKER})
run(${CMAKE_COMMAND} --build ${BUILD_DIR})
foreach(program IN ITEMS nothing core xml hdf5 xml_and_hdf5 component_xml)
    check(${program} ${BUILD_DIR}/${program})
endforeach()

run(${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${ROOT}/${LIBDIR}/pkgconfig ${PKG_CONFIG} --cflags --libs haldencpputils)
separate_arguments(flags UNIX_COMMAND "${output}")
set(plain -I${ROOT}/include -L${ROOT}/${LIBDIR} -lhaldencpputils)
foreach(way IN ITEMS flags plain)
    foreach(program IN ITEMS nothing core xml hdf5 xml_and_hdf5)
        set(path ${BUILD_DIR}/${way}-${program})
        run(${COMPILER} -std=c++17 -fuse-ld=${LINKER} ${sources}/${program}.cpp -o ${path} ${${way}})
        check(${program} ${path} ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${ROOT}/${LIBDIR})
    endforeach()
endforeach()
