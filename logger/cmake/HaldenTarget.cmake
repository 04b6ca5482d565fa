include_guard(GLOBAL)

include(CMakePackageConfigHelpers)

# Finds a dependency, or ends with the name of the Debian package that brings it.
function(halden_find_package name debian_package)
    find_package(${name} QUIET ${ARGN})
    if(NOT ${name}_FOUND)
        message(FATAL_ERROR "${name} is missing. On Debian: apt-get install ${debian_package}")
    endif()
endfunction()

# Under an emulator a program cannot start another one of the build, as the kernel would have to know of the emulator. So
# a program of a cross build lies in a folder beside the file that it is called by, which is a script.
function(halden_emulate target)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.sh)
    set(program ${CMAKE_CURRENT_BINARY_DIR}/${CMAKE_SYSTEM_PROCESSOR}/${target})
    file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/${CMAKE_SYSTEM_PROCESSOR})
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    file(CONFIGURE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} ${program} \"\$@\"\n")
    file(CHMOD ${script} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E rename $<TARGET_FILE:${target}> ${program}
        COMMAND ${CMAKE_COMMAND} -E copy ${script} $<TARGET_FILE:${target}>
        VERBATIM)
    set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "")
endfunction()

# Language and warnings, for every target of the project.
function(halden_target target)
    get_target_property(type ${target} TYPE)
    if(CMAKE_CROSSCOMPILING_EMULATOR AND type STREQUAL "EXECUTABLE")
        halden_emulate(${target})
    endif()
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 17
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF)
    # On ARM, gcc says where the interface of gcc 7.1 differs from those before, which have built nothing here.
    # Fields have bare names, so constructor arguments may hide them: gcc looks at locals only, clang allows it anyway.
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wnon-virtual-dtor
        $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local -Wno-psabi>
        $<$<CXX_COMPILER_ID:Clang>:-Wshadow>
        $<$<BOOL:${HALDEN_WERROR}>:-Werror>)
endfunction()

# A library with its public headers in include/, visible only where it says so and its version script agrees. Installed
# outside the system's folders it looks for its siblings beside itself.
function(halden_library target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "VERSION_SCRIPT" "")
    halden_target(${target})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set_target_properties(${target} PROPERTIES INSTALL_RPATH $ORIGIN)
    endif()
    set(script ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_VERSION_SCRIPT})
    # A library finds what is its own without a look at all others, and others find theirs in short chains: this takes
    # time at every start of a program.
    target_link_options(${target} PRIVATE LINKER:--version-script=${script} LINKER:-Bsymbolic,-O1)
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${script})
    target_compile_features(${target} INTERFACE cxx_std_17)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# halden_install_targets(package target...): the libraries, and what find_package needs to know of them.
function(halden_install_targets package)
    install(TARGETS ${ARGN} EXPORT ${package}-targets
        LIBRARY COMPONENT ${package}-runtime NAMELINK_COMPONENT ${package}-dev
        ARCHIVE COMPONENT ${package}-dev)
endfunction()

# halden_install_config(package config_in): a CMake package of all targets that were installed for it.
function(halden_install_config package config_in)
    set(directory ${CMAKE_INSTALL_LIBDIR}/cmake/${package})
    install(EXPORT ${package}-targets NAMESPACE Halden:: DESTINATION ${directory} COMPONENT ${package}-dev)
    configure_package_config_file(${config_in} ${package}-config.cmake INSTALL_DESTINATION ${directory})
    write_basic_package_version_file(${package}-config-version.cmake COMPATIBILITY SameMajorVersion)
    install(FILES
        ${CMAKE_CURRENT_BINARY_DIR}/${package}-config.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/${package}-config-version.cmake
        DESTINATION ${directory} COMPONENT ${package}-dev)
endfunction()

# halden_install_pc(package pc_in): a pkg-config module. STATIC_REQUIRES are the modules that users of a static library must
# link too, STATIC_LIBS the flags for libraries that have no module; a shared library has them in its own list.
function(halden_install_pc package pc_in)
    cmake_parse_arguments(PARSE_ARGV 2 ARG "" "" "STATIC_REQUIRES;STATIC_LIBS")
    # Relative to the module's own place, so that the package works wherever it is put.
    file(RELATIVE_PATH HALDEN_PC_INCLUDEDIR
        ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    set(HALDEN_PC_STATIC_REQUIRES "")
    set(HALDEN_PC_STATIC_LIBS "")
    if(NOT BUILD_SHARED_LIBS)
        list(JOIN ARG_STATIC_REQUIRES " " HALDEN_PC_STATIC_REQUIRES)
        list(JOIN ARG_STATIC_LIBS " " HALDEN_PC_STATIC_LIBS)
    endif()
    configure_file(${pc_in} ${package}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT ${package}-dev)
endfunction()
