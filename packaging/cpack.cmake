# The Debian packages; scripts/package builds them. Included by install.cmake.
#   zorvo-smtp-bind             the runtime component
#   zorvo-smtp-bind-standalone  what a host without the hosting panel needs besides (packaging/standalone/)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Zorvo maintainers <maintainers@zorvo.example>")
# None for both packages: the first line of each description below is its summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

# Absolute destinations are the point (install.cmake), so the tree is staged through DESTDIR. (The prefix is there only
# for CPack, which makes its directory in every package.)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime debian standalone)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_BIND_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_DEBIAN_BIND_FILE_NAME DEB-DEFAULT)
# dpkg-shlibdeps finds the libraries and the versions that the program was linked with; Postfix it cannot see.
set(CPACK_DEBIAN_BIND_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_BIND_PACKAGE_DEPENDS postfix)
set(CPACK_DEBIAN_BIND_DESCRIPTION
"binds outgoing mail of Postfix to chosen addresses
Chooses the addresses that a Postfix mail server sends from: one pair for the
whole server, one pair per sending domain, or one pair and a HELO name per
sending domain. It changes main.cf, master.cf and one lookup table of Postfix
and restarts it through the service script of the hosting panel, or that of
the package zorvo-smtp-bind-standalone.")
set(CPACK_DEBIAN_BIND_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
                                            ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)

# It neither conflicts with the panel nor replaces a file of it: the service script is put at its place by postinst, and
# only where none is. So both can be installed, and the panel's script is the one that is used.
set(standalone ${PROJECT_NAME}-standalone)
set(CPACK_DEBIAN_STANDALONE_PACKAGE_NAME ${standalone})
set(CPACK_DEBIAN_STANDALONE_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_STANDALONE_PACKAGE_SOURCE ${PROJECT_NAME})
set(CPACK_DEBIAN_STANDALONE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_STANDALONE_PACKAGE_DEPENDS "${PROJECT_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_STANDALONE_DESCRIPTION
"zorvo-smtp-bind for mail servers without the hosting panel
Names the lookup table of zorvo-smtp-bind in Postfix's main.cf, and brings a
service script with which zorvo-smtp-bind restarts Postfix, through systemd
where it runs. Both are taken back when the package is removed. A service
script that is there already stays in use.")
set(CPACK_DEBIAN_STANDALONE_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/standalone/postinst
                                                  ${PROJECT_SOURCE_DIR}/packaging/standalone/prerm)

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

install(FILES ${changelog}.gz packaging/debian/copyright
        DESTINATION /usr/share/doc/${standalone} COMPONENT standalone EXCLUDE_FROM_ALL)
install(PROGRAMS packaging/standalone/zorvorc
        DESTINATION /usr/share/${standalone} COMPONENT standalone EXCLUDE_FROM_ALL)

include(CPack)
cpack_add_component(runtime GROUP bind)
cpack_add_component(debian GROUP bind)
cpack_add_component(standalone GROUP standalone)
