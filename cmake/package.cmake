# What an installation consists of, and the packages made of it: see scripts/package.sh.
if(NRPC_SANITIZE OR NOT NRPC_32BIT OR NOT NRPC_TOOLS)
  return()
endif()

set(NRPC_ARCH_DIR lib/i386-linux-gnu) # where Debian keeps libraries of this machine
set(NRPC_DOC_DIR share/doc/nrpc)

install(TARGETS nrpc LIBRARY DESTINATION ${NRPC_ARCH_DIR})
install(TARGETS nrpc-host RUNTIME DESTINATION bin)
install(FILES docs/nrpc-host.1 DESTINATION share/man/man1)
install(FILES tools/wireshark/nrpc.lua DESTINATION share/nrpc)
install(FILES LICENSE DESTINATION ${NRPC_DOC_DIR} RENAME copyright)
install(FILES README.md DESTINATION ${NRPC_DOC_DIR})
install(FILES README.zh-CN.md CHANGELOG.md DESTINATION ${NRPC_DOC_DIR} OPTIONAL)
install(DIRECTORY docs/ DESTINATION ${NRPC_DOC_DIR}/docs FILES_MATCHING PATTERN "*.md")
install(FILES examples/minimal_host.c DESTINATION ${NRPC_DOC_DIR}/examples)
install(PROGRAMS examples/peer.py DESTINATION ${NRPC_DOC_DIR}/examples)
install(DIRECTORY examples/deploy DESTINATION ${NRPC_DOC_DIR}/examples USE_SOURCE_PERMISSIONS)

# What Debian asks for. Its changelog names the version; what changed stands in CHANGELOG.md.
set(NRPC_PACKAGER "NRPC developers <nrpc@nrpc.invalid>")
set(NRPC_DEBIAN_DIR ${CMAKE_BINARY_DIR}/debian)
string(TIMESTAMP NRPC_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH if that is set
file(CONFIGURE OUTPUT ${NRPC_DEBIAN_DIR}/changelog CONTENT
"nrpc (@PROJECT_VERSION@) unstable; urgency=low

  * See CHANGELOG.md.

 -- @NRPC_PACKAGER@  @NRPC_DATE@
" @ONLY)
file(CONFIGURE OUTPUT ${NRPC_DEBIAN_DIR}/triggers CONTENT "activate-noawait ldconfig\n")
file(CONFIGURE OUTPUT ${NRPC_DEBIAN_DIR}/overrides CONTENT
"# Hosts load the library by its name; nobody links with it.
nrpc: package-name-doesnt-match-sonames *
nrpc: shared-library-lacks-version *
")
install(FILES ${NRPC_DEBIAN_DIR}/changelog DESTINATION ${NRPC_DOC_DIR})
install(FILES ${NRPC_DEBIAN_DIR}/overrides DESTINATION share/lintian/overrides RENAME nrpc)
install(CODE [[
  set(share "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/share")
  execute_process(COMMAND_ERROR_IS_FATAL ANY
    COMMAND gzip -9nf "${share}/man/man1/nrpc-host.1" "${share}/doc/nrpc/changelog")]])

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME nrpc)
set(CPACK_PACKAGE_VENDOR "NRPC developers")
set(CPACK_PACKAGE_CONTACT "${NRPC_PACKAGER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "request/response service over TCP for a host language")
set(CPACK_PACKAGE_DESCRIPTION
"A shared library that the runtime of a host language loads as a plug-in. It
adds a server, which hands every request of any number of clients to one
routine, and a request client, which asks such a server.

The program nrpc-host loads the library as a host does: it describes it, runs
a server, calls one, makes load and shows a demonstration. Documentation, a
Wireshark dissector and example configurations are included.")
set(CPACK_PACKAGE_FILE_NAME nrpc-${PROJECT_VERSION}-i386)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)

set(CPACK_DEBIAN_FILE_NAME nrpc_${PROJECT_VERSION}_i386.deb)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "haproxy, tshark")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${NRPC_DEBIAN_DIR}/triggers)

include(CPack)
