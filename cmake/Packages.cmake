# Debian packages, one for each component; made by scripts/packages.

find_program(HALDEN_DPKG dpkg)
find_program(HALDEN_GZIP gzip)
mark_as_advanced(HALDEN_DPKG HALDEN_GZIP)
if(NOT HALDEN_DPKG OR NOT HALDEN_GZIP)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME haldencpputils)
set(CPACK_PACKAGE_VENDOR Halden)
set(CPACK_PACKAGE_CONTACT "Halden <packages@halden.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
file(CONFIGURE OUTPUT packaging/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_STRIP_FILES OFF) # what is split off as debug symbols is stripped by that
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_OBJDUMP_EXECUTABLE ${CMAKE_OBJDUMP})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/logger)

# halden_package(component name section description [DEPENDS ...]): the package of one component.
function(halden_package component name section description)
    cmake_parse_arguments(PARSE_ARGV 4 ARG "" "" "DEPENDS")
    string(TOUPPER ${component} key)
    list(JOIN ARG_DEPENDS ", " depends)
    set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${key}_DESCRIPTION ${description} PARENT_SCOPE)

    set(changelog ${PROJECT_BINARY_DIR}/packaging/${name}/changelog.gz)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging/${name})
    execute_process(COMMAND ${HALDEN_GZIP} -9 -n -c ${PROJECT_SOURCE_DIR}/packaging/changelog
        OUTPUT_FILE ${changelog} COMMAND_ERROR_IS_FATAL ANY)
    install(FILES ${changelog} ${PROJECT_SOURCE_DIR}/packaging/copyright
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set(version ${PROJECT_VERSION})
set(major ${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENTS_ALL)
halden_package(haldencpputils-runtime libhaldencpputils${major} libs
"Periodic functions, trust in the clock, addresses and routes, child processes,
temporary files, XML, HDF5, bits."
    DEPENDS "libhaldencpplogger${major} (>= ${version})")
halden_package(haldencpputils-dev libhaldencpputils-dev libdevel
"Development files: the headers, the CMake package and the pkg-config module."
    DEPENDS "libhaldencpputils${major} (= ${version})" "libhaldencpplogger-dev (>= ${version})" libboost-dev)
halden_package(haldencpputils-doc libhaldencpputils-doc doc
"Documentation: what the library is for, how scheduling works, and example
services.")
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libhaldencpputils-doc
    COMPONENT haldencpputils-doc EXCLUDE_FROM_ALL)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libhaldencpputils-doc
    COMPONENT haldencpputils-doc EXCLUDE_FROM_ALL)
set(CPACK_DEBIAN_HALDENCPPUTILS-DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_HALDENCPPUTILS-RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HALDENCPPUTILS-RUNTIME_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_HALDENCPPUTILS-RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/triggers)
if(NOT HALDEN_USE_INSTALLED_LOGGER)
    halden_package(haldencpplogger-runtime libhaldencpplogger${major} libs
"Stand-in of the platform's logging library: severities, named loggers, and
spdlog as their sink.")
    halden_package(haldencpplogger-dev libhaldencpplogger-dev libdevel
"Development files of the stand-in of the platform's logging library: the
headers, the CMake package and the pkg-config module."
        DEPENDS "libhaldencpplogger${major} (= ${version})")
    set(CPACK_DEBIAN_HALDENCPPLOGGER-RUNTIME_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_HALDENCPPLOGGER-RUNTIME_DEBUGINFO_PACKAGE ON)
    set(CPACK_DEBIAN_HALDENCPPLOGGER-RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/triggers)
endif()

include(CPack)
