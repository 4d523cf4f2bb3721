# Installed files besides the targets: files for CMake and pkg-config, manual pages, completions. All paths in them are
# relative, so the installed tree may be moved.
include(CMakePackageConfigHelpers)

set(GX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/gxmod)
set(GX_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(GX_INSTALLED_MODULE ${CMAKE_INSTALL_LIBDIR}/gxmod/libgx-control-ssh${CMAKE_SHARED_MODULE_SUFFIX})

configure_package_config_file(cmake/gxmodConfig.cmake.in gxmodConfig.cmake
  INSTALL_DESTINATION ${GX_CMAKE_DIR} PATH_VARS GX_INSTALLED_MODULE)
write_basic_package_version_file(gxmodConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT gxmodTargets NAMESPACE gxmod:: DESTINATION ${GX_CMAKE_DIR} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/gxmodConfig.cmake ${PROJECT_BINARY_DIR}/gxmodConfigVersion.cmake
  DESTINATION ${GX_CMAKE_DIR} COMPONENT dev)

file(RELATIVE_PATH GX_PREFIX_FROM_PC /${GX_PC_DIR} /)
string(REGEX REPLACE "/$" "" GX_PREFIX_FROM_PC ${GX_PREFIX_FROM_PC})
configure_file(cmake/gxmod.pc.in gxmod.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/gxmod.pc DESTINATION ${GX_PC_DIR} COMPONENT dev)
install(FILES examples/minimal_host.cc examples/far_side.py examples/CMakeLists.txt
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libgxmod-dev/examples COMPONENT dev)

install(FILES docs/host-guide.md docs/frames.md docs/limits.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libgxmod-dev COMPONENT dev)

install(FILES docs/man/gx-ssh.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT gx-ssh)
install(FILES docs/man/gx-ssh-peer.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT peer)
install(FILES docs/man/gx-control-ssh.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT module)

# Where systemd looks for the units of all users.
install(FILES examples/gx-ssh@.service examples/gx-ssh@.socket DESTINATION lib/systemd/user COMPONENT gx-ssh)

# bash and fish look for a file with the name of the program.
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completions/gx-ssh.bash DESTINATION ${completions} RENAME gx-ssh COMPONENT gx-ssh)
install(FILES completions/gx-ssh.bash DESTINATION ${completions} RENAME gx-ssh-peer COMPONENT peer)
install(FILES completions/_gx-ssh DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT gx-ssh)
install(FILES completions/gx-ssh.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT gx-ssh)
install(FILES completions/gx-ssh-peer.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
  COMPONENT peer)
