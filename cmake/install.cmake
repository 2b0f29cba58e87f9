# The installed interface: the tool and its two helpers, the three static
# libraries, the headers under include/hostkit, a CMake package and a
# pkg-config file.
include(CMakePackageConfigHelpers)

set(hostkit_targets cpuid cpub cpuinfo hostid)
foreach(tool hostkit cpuinfo-replay cpuinfo-dump)
  if(TARGET ${tool})
    list(APPEND hostkit_programs ${tool})
  endif()
endforeach()

# With link-time optimisation the installed libraries carry machine code beside
# their optimiser form, so a program built without it, or by another compiler,
# links them all the same.
if(hostkit_ipo AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  foreach(lib ${hostkit_targets})
    target_compile_options(${lib} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-ffat-lto-objects>)
  endforeach()
endif()

install(TARGETS ${hostkit_targets} EXPORT hostkitTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hostkit)
install(TARGETS ${hostkit_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

if(HOSTKIT_PLATFORM STREQUAL "win32")
  install(FILES ${ZSTD_LIBRARY} DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

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

# Static libraries in link order: each stands above the ones behind it.
set(HOSTKIT_PC_LIBS "")
foreach(lib hostid cpuinfo cpub cpuid)
  get_target_property(type ${lib} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    string(APPEND HOSTKIT_PC_LIBS " -l${lib}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/hostkit.pc.in ${CMAKE_CURRENT_BINARY_DIR}/hostkit.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/hostkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
