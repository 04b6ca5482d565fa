# Halden::cpputils, of which a program needs exactly those libraries that it uses something of.

# The linker scans the group as needed. Both options carry the libraries' folder, in which the linker finds what they need
# of each other, and which makes them unlike those of any other group: equal options CMake would write only once.
set(build_folder -rpath-link,${CMAKE_CURRENT_BINARY_DIR})
set(install_folder -rpath-link,$<INSTALL_PREFIX>/${CMAKE_INSTALL_LIBDIR})
add_library(haldencpputils_all INTERFACE)
set_target_properties(haldencpputils_all PROPERTIES EXPORT_NAME cpputils)
target_link_libraries(haldencpputils_all INTERFACE
    $<BUILD_INTERFACE:-Wl,--push-state,--as-needed,${build_folder}>
    $<INSTALL_INTERFACE:-Wl,--push-state,--as-needed,${install_folder}>
    haldencpputils haldencpputils_xml haldencpputils_hdf5
    $<BUILD_INTERFACE:-Wl,--pop-state,${build_folder}>
    $<INSTALL_INTERFACE:-Wl,--pop-state,${install_folder}>)
add_library(Halden::cpputils ALIAS haldencpputils_all)
add_library(Halden::cpputils-core ALIAS haldencpputils)
add_library(Halden::cpputils-xml ALIAS haldencpputils_xml)
add_library(Halden::cpputils-hdf5 ALIAS haldencpputils_hdf5)

# The same for "-lhaldencpputils": the name that the linker looks for is that of a script, as with the C library.
set(halden_linker_script ${CMAKE_CURRENT_BINARY_DIR}/linker-script/libhaldencpputils.so)
set(major ${PROJECT_VERSION_MAJOR})
file(CONFIGURE OUTPUT ${halden_linker_script} CONTENT
"/* Of these a program needs those that it uses something of. */
GROUP ( AS_NEEDED ( libhaldencpputils.so.${major} libhaldencpputils-xml.so.${major} libhaldencpputils-hdf5.so.${major} ) )
")
add_custom_command(TARGET haldencpputils POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E rm -f $<TARGET_LINKER_FILE:haldencpputils>
    COMMAND ${CMAKE_COMMAND} -E copy ${halden_linker_script} $<TARGET_LINKER_FILE:haldencpputils>
    VERBATIM)
