# Debian packages of the installed tree, one per install component; scripts/package builds them. They depend on the
# same version of each other, because the programs and the module are tested together.
file(STRINGS cmake/debian/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "\\(${PROJECT_VERSION}-([^)]+)\\)")
  message(FATAL_ERROR "cmake/debian/changelog does not begin with version ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set(GX_DEBIAN_VERSION ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE gx-control-ssh)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "gx-control-ssh maintainers <maintainers@gx-control-ssh.example>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/GxCompressDocs.cmake)
set(CPACK_COMPONENTS_ALL "")

# Declares the package `name` with the files of `component`. DESCRIPTION is one line of summary, then the text.
macro(gx_package component name)
  cmake_parse_arguments(ARG "" "SECTION;DEPENDS;RECOMMENDS;SUGGESTS;DESCRIPTION" "" ${ARGN})
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${ARG_SECTION})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARG_DEPENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${ARG_RECOMMENDS}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_SUGGESTS "${ARG_SUGGESTS}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${ARG_DESCRIPTION}")
  # EXCLUDE_FROM_ALL: only the packages contain these files, a plain installation does not.
  install(FILES cmake/debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES cmake/debian/changelog DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} RENAME changelog.Debian
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

gx_package(module libgx-control-ssh SECTION libs SUGGESTS "gx-ssh"
  DESCRIPTION "SSH access over any stream of bytes - module
The module is loaded by a program that has a stream of bytes to another
computer. It opens a port of 127.0.0.1 and carries the connections to it,
cut into frames, through that stream. The other end of the stream connects
them to an SSH server.
.
This package holds the module and an overview of the whole as a manual page.")

gx_package(gx-ssh gx-ssh SECTION net
  DEPENDS "libgx-control-ssh (= ${GX_DEBIAN_VERSION})" RECOMMENDS "openssh-client"
  SUGGESTS "gx-ssh-peer (= ${GX_DEBIAN_VERSION}), gx-ssh-peers (= ${GX_DEBIAN_VERSION})"
  DESCRIPTION "forward connections through the stdin and stdout of a command
gx-ssh starts a command that runs gx-ssh-peer on another computer - inside a
container, behind a jump host, at the end of a serial line - and opens a local
port. ssh, scp and sftp to that port reach the SSH server over there.")

gx_package(peer gx-ssh-peer SECTION net SUGGESTS "openssh-server"
  DESCRIPTION "far side of gx-ssh, which forwards connections through a command
gx-ssh on another computer starts gx-ssh-peer where the SSH server is in
reach. It takes frames from its standard input, opens the connections that
they ask for, and answers on its standard output.
.
It needs no privileges and no configuration, and opens nothing but the SSH
server of its own computer unless told otherwise.")

if(GX_STATIC_PEER)
  gx_package(peer-static gx-ssh-peer-static SECTION net
    DESCRIPTION "far side of gx-ssh as one static file
gx-ssh-peer as one static file, /usr/libexec/gx-ssh/gx-ssh-peer. It runs where
nothing is installed. Copy it into a container or a pod and start it there.")
endif()

if(GX_STATIC_PEER)
  gx_package(peers gx-ssh-peers SECTION net
    DESCRIPTION "far sides that gx-ssh brings to other computers
gx-ssh --bring sends one of these static builds of gx-ssh-peer to a computer
on which there is nothing but a shell, and runs it there. There is one for the
architecture of this package, and for each of aarch64, armv7 and riscv64 whose
cross compiler was there when the package was built.")
endif()

gx_package(dev libgxmod-dev SECTION libdevel
  DEPENDS "libgx-control-ssh (= ${GX_DEBIAN_VERSION})"
  DESCRIPTION "SSH access over any stream of bytes - headers
The headers for programs that load the module of libgx-control-ssh, and for
far sides that speak its frames. With them come files for CMake and pkg-config
that tell where headers and module are, a guide, and an example.")

include(CPack)
