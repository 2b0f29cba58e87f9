# What a user installs beside the programs and libraries: the manual pages,
# the README and the licence, the version resource of hostkit.exe, and the
# packages cpack makes: a Debian package on Linux, a zip for Windows.

set(HOSTKIT_VENDOR "The hostkit developers")
set(HOSTKIT_MAINTAINER "hostkit maintainers <maintainers@users.noreply.c-seed-6b548b3f.example>")

# The licence is LICENSE at the root; every other statement of it is made
# from that file.
set(licence_file ${PROJECT_SOURCE_DIR}/LICENSE)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${licence_file} ${PROJECT_SOURCE_DIR}/README.md)
file(READ ${licence_file} licence)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" HOSTKIT_COPYRIGHT_LINE "${licence}")
set(copyright_holders "${CMAKE_MATCH_1}")
if(NOT copyright_holders)
  message(FATAL_ERROR "LICENSE has no copyright line")
endif()

if(HOSTKIT_PLATFORM STREQUAL "win32")
  # The zip is read on Windows: the README and the licence with CR LF line
  # ends, at the top of the folder.
  set(docs README.md LICENSE)
  set(windows_docs README.txt LICENSE.txt)
  foreach(from to IN ZIP_LISTS docs windows_docs)
    file(READ ${PROJECT_SOURCE_DIR}/${from} text)
    string(REPLACE "\n" "\r\n" text "${text}")
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${to} "${text}")
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${to} DESTINATION .)
  endforeach()
  # The zstd library in the zip is built from Debian's source package of the
  # system's version (scripts/setup.sh); its terms travel with it.
  install(FILES /usr/share/doc/libzstd-dev/copyright DESTINATION . RENAME zstd-copyright.txt)

  # The version resource, which Explorer shows in the file's properties. Its
  # own object library, so no compiler option of ours reaches the resource
  # compiler.
  enable_language(RC)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/hostkit.rc.in
    ${CMAKE_CURRENT_BINARY_DIR}/hostkit.rc @ONLY)
  add_library(hostkit_version OBJECT ${CMAKE_CURRENT_BINARY_DIR}/hostkit.rc)
  target_link_libraries(hostkit PRIVATE hostkit_version)

  set(CPACK_GENERATOR ZIP)
else()
  # Manual pages and the changelog compressed as Debian installs them.
  set(compressed "")
  foreach(page hostkit cpuinfo-replay cpuinfo-dump)
    list(APPEND compressed ${CMAKE_CURRENT_BINARY_DIR}/man/${page}.1.gz)
    add_custom_command(OUTPUT man/${page}.1.gz
      COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/man/${page}.1 > man/${page}.1.gz
      DEPENDS ${PROJECT_SOURCE_DIR}/man/${page}.1 VERBATIM)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/${page}.1.gz
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()
  list(APPEND compressed ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
  add_custom_command(OUTPUT changelog.gz
    COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > changelog.gz
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/man)
  add_custom_target(hostkit_docs ALL DEPENDS ${compressed})

  # The licence in Debian's machine-readable form: the MIT licence is the one
  # Debian calls Expat. Continuation lines start with a blank, empty ones are
  # a lone dot.
  string(FIND "${licence}" "Permission is hereby granted" start)
  string(SUBSTRING "${licence}" ${start} -1 terms)
  string(STRIP "${terms}" terms)
  string(REPLACE "\n\n" "\n.\n" terms "${terms}")
  string(REPLACE "\n" "\n " terms "${terms}")
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: hostkit

Files: *
Copyright: ${copyright_holders}
License: Expat
 ${terms}
")
  install(FILES ${PROJECT_SOURCE_DIR}/README.md ${CMAKE_CURRENT_BINARY_DIR}/copyright
    ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

  set(CPACK_GENERATOR DEB)
endif()

set(CPACK_PACKAGE_NAME hostkit)
set(CPACK_PACKAGE_VENDOR "${HOSTKIT_VENDOR}")
set(CPACK_PACKAGE_CONTACT "${HOSTKIT_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
"hostkit writes one report: a processor class number, the logical
processors, cores and sockets found with CPUID and by pinning a thread to
each processor, the host name and the machine's default hardware
identifier, with the trace of the processor detection.

cpuinfo-dump records a machine's CPUID leaves as text files and
cpuinfo-replay prints the report's processor block for such a recording.

The package also holds the static libraries under the report (cpub,
cpuinfo, hostid) with their C headers, a CMake package and a pkg-config
file.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The pkg-config file and the CMake package name zlib and zstd, whose
# development files a program built against the libraries needs.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "zlib1g-dev, libzstd-dev")
include(CPack)
