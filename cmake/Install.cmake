# What is installed, with a CMake package and a pkg-config module.

install(DIRECTORY include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT haldencpputils-dev)
if(BUILD_SHARED_LIBS)
    install(TARGETS haldencpputils EXPORT haldencpputils-targets
        LIBRARY COMPONENT haldencpputils-runtime NAMELINK_SKIP)
    install(FILES ${halden_linker_script} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT haldencpputils-dev)
    halden_install_targets(haldencpputils haldencpputils_xml haldencpputils_hdf5 haldencpputils_all)
else()
    halden_install_targets(haldencpputils haldencpputils)
endif()
halden_install_config(haldencpputils cmake/haldencpputils-config.cmake.in)
set(HALDEN_PC_HARDENED false)
if(HALDEN_HARDENED)
    set(HALDEN_PC_HARDENED true)
endif()
# HDF5's modules and libraries have other names on each distribution, so a static library's users get what was found here.
set(libraries HDF5::HDF5)
set(halden_hdf5_flags)
while(libraries)
    list(POP_FRONT libraries library)
    if(TARGET ${library})
        get_target_property(further ${library} INTERFACE_LINK_LIBRARIES)
        if(further)
            list(APPEND libraries ${further})
        endif()
        get_target_property(type ${library} TYPE)
        if(type STREQUAL "INTERFACE_LIBRARY")
            continue()
        endif()
        get_target_property(library ${library} LOCATION)
    endif()
    if(library MATCHES "^${CMAKE_SYSROOT}(/.*)/lib(hdf5[^/]*)\\.(so|a)")
        list(APPEND halden_hdf5_flags -L${CMAKE_MATCH_1} -l${CMAKE_MATCH_2})
    endif()
endwhile()
list(REMOVE_DUPLICATES halden_hdf5_flags)
halden_install_pc(haldencpputils cmake/haldencpputils.pc.in
    STATIC_REQUIRES libxml-2.0
    STATIC_LIBS ${halden_hdf5_flags})

# The hardened libraries of a tree of both builds, in the place of the exact ones: only for who asks for the component.
if(TARGET haldencpputils_hardened)
    install(TARGETS haldencpputils_hardened haldencpputils_xml_hardened haldencpputils_hdf5_hardened
        LIBRARY COMPONENT haldencpputils-hardened NAMELINK_SKIP EXCLUDE_FROM_ALL)
endif()
