# What an installation holds beyond the programs and libraries (docs, completion, the copyright
# and changelog), and the Debian package built from it by CPack (scripts/package builds it).
#
# Installed tree (prefix /usr in the package):
#   bin/                       rplqmfmt, kxq, rplqmgen, rplq
#   <libdir>/rplqmfmt/         libkxm.so, libkxic.so (private: found through the programs' RUNPATH)
#   share/man/man1/            one page per program (gzipped in the package)
#   share/doc/rplqmfmt/        README, docs, copyright, changelog (gzipped in the package)
#   share/bash-completion/completions/   kxq, rplq

# rplq joins the installation once its target exists, whether or not its own folder installs it
# (a second rule for the same file installs the same bytes).
if(TARGET rplq)
  install(TARGETS rplq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  if(EXISTS ${CMAKE_SOURCE_DIR}/man/rplq.1)
    install(FILES ${CMAKE_SOURCE_DIR}/man/rplq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
  install(FILES ${CMAKE_SOURCE_DIR}/completion/rplq
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()
install(FILES ${CMAKE_SOURCE_DIR}/completion/kxq
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

file(GLOB rpl_docs ${CMAKE_SOURCE_DIR}/docs/*.md)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${rpl_docs}
              ${CMAKE_SOURCE_DIR}/packaging/copyright ${CMAKE_SOURCE_DIR}/packaging/changelog
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Every program the package holds: scripts/package builds this target, not the tests and benchmarks.
add_custom_target(rpl_installed_programs)
foreach(t rplqmfmt kxq rplqmgen rplq kxm kxic)
  if(TARGET ${t})
    add_dependencies(rpl_installed_programs ${t})
  endif()
endforeach()

# The Debian package. Its dependencies are read from the binaries by dpkg-shlibdeps; its version is
# the project's, the one every program's --version prints.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rplqmfmt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "rplqmfmt developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "replication queue formatter and Velora KX queue tools")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "rplqmfmt prints the messages waiting on a queue of the Velora KX messaging
middleware in readable form: descriptor, hex dump, header folders, XML,
text, and the compact replication messages (transactions, row changes,
subscription schemas, control messages) decoded field by field.")
if(TARGET rplq)
  string(APPEND CPACK_DEBIAN_PACKAGE_DESCRIPTION "
rplq finds, filters, summarizes and exports what is on a replication queue.")
endif()
string(APPEND CPACK_DEBIAN_PACKAGE_DESCRIPTION "
.
The package also holds the middleware the tools run on: a local queue
manager on SQLite (libkxm), a client for queue managers kept on a Redis
server (libkxic), the queue admin tool kxq and the traffic generator
rplqmgen.")
if(NOT CPACK_DEBIAN_PACKAGE_MAINTAINER)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "rplqmfmt developers <rplqmfmt@example.org>")
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# Debian wants programs and libraries stripped of symbols and of the .comment and .note sections,
# manual pages and the changelog compressed: done on the staged tree, so that `cmake --install`
# keeps the build's files as they are.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/prepare.cmake)
include(CPack)
