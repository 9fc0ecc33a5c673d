# What an installation holds and where it goes: the program and what belongs to it. Its companions are a wheel
# (companions.cmake) for Python's own installers.

# zsh looks for completions of Debian's packages in vendor-completions, for all others in site-functions.
set(VORN_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Where zsh finds completion functions")

# Folders are for everybody, whatever the umask of who installs.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
    WORLD_EXECUTE)

# The configuration of /usr lies in /etc, that of any other prefix below the prefix.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(configuration_dir ${CMAKE_INSTALL_FULL_SYSCONFDIR})
else()
  set(configuration_dir ${CMAKE_INSTALL_SYSCONFDIR})
endif()

# The unit names the program by the path it is installed to.
file(READ service/vorn-server.service unit)
string(REPLACE "/usr/bin/" "${CMAKE_INSTALL_FULL_BINDIR}/" unit "${unit}")
file(CONFIGURE OUTPUT vorn-server.service CONTENT "${unit}" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS service/vorn-server.service)

install(TARGETS vorn RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})  # every user pings
install(FILES completions/vorn.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vorn)
install(FILES completions/_vorn DESTINATION ${VORN_ZSH_DIR})
install(FILES completions/vorn.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn-server.service DESTINATION lib/systemd/system)
install(FILES service/vorn.ufw DESTINATION ${configuration_dir}/ufw/applications.d RENAME vorn)
install(FILES service/vorn.nft service/90-vorn.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES README.md LICENSE CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES man/vorn.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
if(VORN_STATIC)
  install(FILES packaging/INSTALL DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

add_custom_target(uninstall COMMAND ${CMAKE_COMMAND} -Dprefix=${CMAKE_INSTALL_PREFIX}
                  -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/uninstall.cmake VERBATIM)
