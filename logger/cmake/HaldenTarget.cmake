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
# a program of a cross build lies beside the name it is called by, which is that of a script.
function(halden_emulate target)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.sh)
    set(program ${CMAKE_CURRENT_BINARY_DIR}/${target}.${CMAKE_SYSTEM_PROCESSOR})
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

# A library with its public headers in include/, visible only where it says so and its version script agrees.
function(halden_library target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "EXPORT_NAME;VERSION_SCRIPT" "")
    halden_target(${target})
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${ARG_EXPORT_NAME}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    set(script ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_VERSION_SCRIPT})
    target_link_options(${target} PRIVATE LINKER:--version-script=${script})
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${script})
    target_compile_features(${target} INTERFACE cxx_std_17)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# Installs the library with a CMake package and a pkg-config module of the target's name. STATIC_REQUIRES are the
# pkg-config modules that users of a static library must link too, STATIC_LIBS the libraries that have no module; a shared
# library has them in its own list.
function(halden_install_package target config_in pc_in)
    cmake_parse_arguments(PARSE_ARGV 3 ARG "" "" "STATIC_REQUIRES;STATIC_LIBS")
    set(directory ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
    install(TARGETS ${target} EXPORT ${target}-targets
        LIBRARY COMPONENT ${target}-runtime NAMELINK_COMPONENT ${target}-dev
        ARCHIVE COMPONENT ${target}-dev)
    install(EXPORT ${target}-targets NAMESPACE Halden:: DESTINATION ${directory} COMPONENT ${target}-dev)
    configure_package_config_file(${config_in} ${target}-config.cmake INSTALL_DESTINATION ${directory})
    write_basic_package_version_file(${target}-config-version.cmake COMPATIBILITY SameMajorVersion)
    install(FILES
        ${CMAKE_CURRENT_BINARY_DIR}/${target}-config.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/${target}-config-version.cmake
        DESTINATION ${directory} COMPONENT ${target}-dev)

    # Relative to the module's own place, so that the package works wherever it is put.
    file(RELATIVE_PATH HALDEN_PC_INCLUDEDIR
        ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    set(HALDEN_PC_STATIC_REQUIRES "")
    set(HALDEN_PC_STATIC_LIBS "")
    if(NOT BUILD_SHARED_LIBS)
        list(JOIN ARG_STATIC_REQUIRES " " HALDEN_PC_STATIC_REQUIRES)
        list(TRANSFORM ARG_STATIC_LIBS PREPEND "-l")
        list(JOIN ARG_STATIC_LIBS " " HALDEN_PC_STATIC_LIBS)
    endif()
    configure_file(${pc_in} ${target}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT ${target}-dev)
endfunction()
