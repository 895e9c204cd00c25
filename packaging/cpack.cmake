# The Debian package: the runtime component. scripts/package builds it; included by install.cmake.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Zorvo maintainers <maintainers@zorvo.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "binds outgoing mail of Postfix to chosen addresses")
set(CPACK_PACKAGE_DESCRIPTION
"Chooses the addresses that a Postfix mail server sends from: one pair for the
whole server, one pair per sending domain, or one pair and a HELO name per
sending domain. It changes main.cf, master.cf and one lookup table of Postfix
and restarts it through the service script of the hosting panel.")

# Absolute destinations are the point (install.cmake), so the tree is staged through DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime debian)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the libraries and the versions that the program was linked with; Postfix it cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS postfix)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
                                       ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What Debian expects of every package besides; no part of a plain `cmake --install`.
set(changelog ${PROJECT_BINARY_DIR}/debian/changelog)
configure_file(packaging/debian/changelog.in ${changelog} @ONLY)
add_custom_command(OUTPUT ${changelog}.gz
                   COMMAND ${GZIP} -9 --no-name --force --keep ${changelog}
                   DEPENDS ${changelog} VERBATIM)
add_custom_target(debian_changelog ALL DEPENDS ${changelog}.gz)
install(FILES ${changelog}.gz packaging/debian/copyright
        DESTINATION /usr/share/doc/${PROJECT_NAME} COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES packaging/debian/lintian-overrides DESTINATION /usr/share/lintian/overrides
        RENAME ${PROJECT_NAME} COMPONENT debian EXCLUDE_FROM_ALL)

include(CPack)
