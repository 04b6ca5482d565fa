# Fails when a public header below one of DIRECTORIES is not in LISTED, or the other way round.

foreach(directory IN LISTS DIRECTORIES)
    file(GLOB_RECURSE found RELATIVE ${directory} ${directory}/*.h)
    list(APPEND headers ${found})
endforeach()
list(SORT headers)
list(SORT LISTED)
if(NOT headers STREQUAL LISTED)
    message(FATAL_ERROR "public headers are\n  ${headers}\nbut the list in tests/package/CMakeLists.txt is\n  ${LISTED}")
endif()
