# The installed interface: the tool and its two helpers, the static libraries,
# the headers under include/hostkit, a CMake package, a pkg-config file, the
# manual pages, the README and the licence.
include(CMakePackageConfigHelpers)

# The installed libraries in link order, each before the libraries it calls.
# Everything below (install rules, exported targets, pkg-config) takes them
# from here. The order has to be a true one: pkg-config keeps only the last of
# repeated flags, so libraries that call each other can't be listed twice.
set(hostkit_libraries hostid cpuinfo cpub cpuid)
set(hostkit_programs hostkit cpuinfo-replay cpuinfo-dump)

# With link-time optimisation the installed libraries carry machine code beside
# their optimiser form, so a program built without it, or by another compiler,
# links them all the same.
if(hostkit_ipo AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  foreach(lib ${hostkit_libraries})
    target_compile_options(${lib} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-ffat-lto-objects>)
  endforeach()
endif()

install(TARGETS ${hostkit_libraries} EXPORT hostkitTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hostkit)
install(TARGETS ${hostkit_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT hostkitTargets NAMESPACE hostkit::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/hostkit)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/hostkitConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/hostkitConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/hostkit)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/hostkitConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hostkitConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/hostkitConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/hostkit)

# pkg-config. The libraries need no C++ runtime, so a C program links them
# with the C driver. On Linux zlib and zstd come from the system's own .pc
# files; the Windows package carries zstd and links zlib statically, so the
# program needs no DLL that doesn't come with Windows.
set(HOSTKIT_PC_LIBS "")
foreach(lib ${hostkit_libraries})
  string(APPEND HOSTKIT_PC_LIBS " -l${lib}")
endforeach()
if(HOSTKIT_PLATFORM STREQUAL "win32")
  set(HOSTKIT_PC_REQUIRES "")
  string(APPEND HOSTKIT_PC_LIBS " -lzstd -l:libz.a -ladvapi32")
  install(FILES ${ZSTD_LIBRARY} DESTINATION ${CMAKE_INSTALL_LIBDIR})
else()
  set(HOSTKIT_PC_REQUIRES "Requires: zlib libzstd")
  string(APPEND HOSTKIT_PC_LIBS " -lpthread")
endif()
file(RELATIVE_PATH HOSTKIT_PC_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
string(REGEX REPLACE "/$" "" HOSTKIT_PC_PREFIX "${HOSTKIT_PC_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/hostkit.pc.in ${CMAKE_CURRENT_BINARY_DIR}/hostkit.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hostkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
