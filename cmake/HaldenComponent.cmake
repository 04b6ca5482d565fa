include_guard(GLOBAL)

# Installs haldencpputils_<component> as a component of the CMake package, with a pkg-config module of the target's name.
# DEPENDENCIES are the arguments of find_dependency() for what the component needs besides the library; REQUIRES are the
# pkg-config modules of all that its headers need.
function(halden_install_component component)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DESCRIPTION" "DEPENDENCIES;REQUIRES")
    set(target haldencpputils_${component})
    set(directory ${CMAKE_INSTALL_LIBDIR}/cmake/haldencpputils)
    halden_install_targets(${target} ${target})
    install(EXPORT ${target}-targets NAMESPACE Halden:: DESTINATION ${directory} COMPONENT ${target}-dev)

    set(HALDEN_COMPONENT_DEPENDENCIES "")
    foreach(dependency IN LISTS ARG_DEPENDENCIES)
        string(APPEND HALDEN_COMPONENT_DEPENDENCIES "find_dependency(${dependency})\n")
    endforeach()
    file(CONFIGURE OUTPUT haldencpputils-${component}.cmake @ONLY
        CONTENT "@HALDEN_COMPONENT_DEPENDENCIES@include(\${CMAKE_CURRENT_LIST_DIR}/@target@-targets.cmake)\n")
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/haldencpputils-${component}.cmake DESTINATION ${directory}
        COMPONENT ${target}-dev)

    # Relative to the module's own place, so that the package works wherever it is put.
    file(RELATIVE_PATH includedir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    list(JOIN ARG_REQUIRES " " requires)
    file(CONFIGURE OUTPUT ${target}.pc @ONLY CONTENT [[
libdir=${pcfiledir}/..
includedir=${pcfiledir}/@includedir@

Name: @target@
Description: @ARG_DESCRIPTION@
Version: @PROJECT_VERSION@
Requires: @requires@
Libs: -L${libdir} -l@target@
Cflags: -I${includedir}
]])
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT ${target}-dev)
endfunction()
