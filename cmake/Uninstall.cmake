# The target "uninstall", which removes what "cmake --install" has put in place, and nothing else. CMake's own manifest
# would not do: a staged install overwrites it, and so does one of another prefix.

set(halden_manifest ${CMAKE_CURRENT_BINARY_DIR}/installed.txt)
install(CODE "
    if(\"\$ENV{DESTDIR}\" STREQUAL \"\")
        list(JOIN CMAKE_INSTALL_MANIFEST_FILES \"\\n\" installed)
        file(APPEND \"${halden_manifest}\" \"\${installed}\\n\")
    endif()
" ALL_COMPONENTS)
add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -DMANIFEST=${halden_manifest} -P ${CMAKE_CURRENT_LIST_DIR}/RemoveInstalled.cmake
    VERBATIM)
