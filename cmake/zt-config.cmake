# Targets: zt::static, zt::shared, and zt::zt, which is the one that BUILD_SHARED_LIBS asks for (static without
# it), just as when the source tree is taken in with add_subdirectory.
include(${CMAKE_CURRENT_LIST_DIR}/zt-targets.cmake)
if(NOT TARGET zt::zt)
    add_library(zt::zt INTERFACE IMPORTED)
    if(BUILD_SHARED_LIBS)
        target_link_libraries(zt::zt INTERFACE zt::shared)
    else()
        target_link_libraries(zt::zt INTERFACE zt::static)
    endif()
endif()
