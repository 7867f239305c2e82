# What `cmake --install` puts where. Components: runtime (what a program needs), dev (what a developer needs),
# tools (the program ztpipe and the pages for the person on call).
include(CMakePackageConfigHelpers)

# Headers that only the library's own sources include.
set(zt_internal_headers failure.h errno_guard.h transition_lock.h)
file(GLOB zt_runtime_headers CONFIGURE_DEPENDS zt/runtime/*.h)
foreach(header ${zt_internal_headers})
    list(FILTER zt_runtime_headers EXCLUDE REGEX "/${header}$")
endforeach()
install(FILES zt/ztpipe.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zt COMPONENT dev)
install(FILES ${zt_runtime_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zt/runtime COMPONENT dev)

set_target_properties(zt PROPERTIES EXPORT_NAME static)
set_target_properties(zt_shared PROPERTIES EXPORT_NAME shared)
install(TARGETS zt zt_shared EXPORT zt-targets
    ARCHIVE COMPONENT dev
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)

set(zt_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zt)
install(EXPORT zt-targets NAMESPACE zt:: DESTINATION ${zt_config_dir} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zt-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/zt-config.cmake ${PROJECT_BINARY_DIR}/zt-config-version.cmake
    DESTINATION ${zt_config_dir} COMPONENT dev)

# The path to the prefix is relative, so that the file is right wherever the tree is installed or moved to.
file(RELATIVE_PATH zt_pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" zt_pc_prefix ${zt_pc_prefix})
configure_file(cmake/zt.pc.in zt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(ZT_BUILD_TOOLS)
    install(TARGETS ztpipe RUNTIME COMPONENT tools)
endif()
file(GLOB zt_pages_1 CONFIGURE_DEPENDS man/*.1)
file(GLOB zt_pages_3 CONFIGURE_DEPENDS man/*.3)
file(GLOB zt_pages_7 CONFIGURE_DEPENDS man/*.7)
install(FILES ${zt_pages_1} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${zt_pages_3} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT dev)
# Section 7 is about option texts, trace lines and codes: what one looks up where the program runs.
install(FILES ${zt_pages_7} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT tools)
