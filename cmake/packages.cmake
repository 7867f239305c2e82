# Debian packages, made by scripts/packages (cpack -G DEB): libzt1 (the shared library), libzt-dev (headers, static
# library, pages of the functions) and zt-tools (the program ztpipe, pages of the language, the trace, the codes).
set(zt_packages ${CMAKE_CURRENT_LIST_DIR}/packages)
set(zt_libzt libzt${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zt)
set(CPACK_PACKAGE_CONTACT "zt developers <zt@example.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_PRE_BUILD_SCRIPTS ${zt_packages}/finish.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(zt_same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${zt_libzt})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${zt_packages}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "talk with child programs through pipes - shared library
 Starts child programs and exchanges data with them: a conversation with a
 program, or the output or input of a shell command. Every failure has a code
 and a place, and every operation can be traced.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzt-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${zt_libzt} ${zt_same_version}")
set(CPACK_DEBIAN_DEV_PACKAGE_RECOMMENDS zt-tools)
set(CPACK_COMPONENT_DEV_DESCRIPTION "talk with child programs through pipes - development files
 Headers, the static library, files for CMake and pkg-config, and the manual
 pages of the functions.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zt-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "talk with child programs through pipes - program and reference
 The program ztpipe does from a shell what the library does from C++. The
 manual pages describe the option texts, the trace lines and every code.")

configure_file(${zt_packages}/changelog.in changelog @ONLY)
# The texts that belong into every package.
foreach(component runtime dev tools)
    string(TOUPPER ${component} upper)
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES ${zt_packages}/copyright DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${PROJECT_BINARY_DIR}/changelog DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
        RENAME changelog.Debian COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)
