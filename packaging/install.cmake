# What `cmake --install` and the Debian package put where. Two components:
#   runtime      the programs and their companions, at the paths where the panel, man(1), bash and systemd look
#   development  the static libraries with their headers and the CMake package zorvo-mail, below the prefix
# Included by the root CMakeLists.txt.
include(CMakePackageConfigHelpers)

# The panel starts zorvo-smtp-bind at this very path, so it does not follow CMAKE_INSTALL_PREFIX; DESTDIR moves it.
# zorvo-smtp-check goes into the same directory.
install(TARGETS zorvo-smtp-bind zorvo-smtp-check RUNTIME DESTINATION /usr/local/maru/admin/sbin COMPONENT runtime)

# The manual pages carry the version, and are stored as man(1) and Debian keep all pages.
find_program(GZIP gzip REQUIRED)
foreach(program zorvo-smtp-bind zorvo-smtp-check)
    set(manual ${PROJECT_BINARY_DIR}/docs/${program}.8)
    configure_file(docs/${program}.8.in ${manual} @ONLY)
    add_custom_command(OUTPUT ${manual}.gz
                       COMMAND ${GZIP} -9 --no-name --force --keep ${manual}
                       DEPENDS ${manual} VERBATIM)
    list(APPEND manuals ${manual}.gz)
endforeach()
add_custom_target(manual ALL DEPENDS ${manuals})
install(FILES ${manuals} DESTINATION /usr/share/man/man8 COMPONENT runtime)

install(FILES packaging/completion/zorvo-smtp-bind packaging/completion/zorvo-smtp-check
        DESTINATION /usr/share/bash-completion/completions COMPONENT runtime)
install(FILES packaging/tmpfiles.d/zorvo-smtp-bind.conf DESTINATION /usr/lib/tmpfiles.d COMPONENT runtime)

# The three layers as libraries for other programs of the mail layer: #include "common/MKLock.h" and so on.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zorvo-mail)
foreach(layer common process postfix)
    target_include_directories(zorvo_${layer} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/zorvo>)
    set_target_properties(zorvo_${layer} PROPERTIES EXPORT_NAME ${layer})
    install(TARGETS zorvo_${layer} EXPORT zorvo-mail
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(DIRECTORY ${layer}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zorvo/${layer}
            COMPONENT development FILES_MATCHING PATTERN *.h)
endforeach()
install(EXPORT zorvo-mail FILE zorvo-mail-targets.cmake NAMESPACE zorvo::
        DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(packaging/zorvo-mail-config.cmake.in ${PROJECT_BINARY_DIR}/zorvo-mail-config.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
# C++ without a stable binary interface: another minor version is another interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zorvo-mail-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zorvo-mail-config.cmake ${PROJECT_BINARY_DIR}/zorvo-mail-config-version.cmake
        DESTINATION ${package_dir} COMPONENT development)

include(packaging/cpack.cmake)
