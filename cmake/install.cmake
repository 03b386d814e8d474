# What `cmake --install` puts into place, in components that CPack makes packages of: runtime
# (library, command and its pages), development (headers, and how to find and link the library) and
# python (the Python package, from python/).
include(CMakePackageConfigHelpers)

install(TARGETS zbase_shared EXPORT zbaseTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zbase_static EXPORT zbaseTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zstz DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${ZBASE_INSTALLED_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Z COMPONENT development)

# find_package(zbase) gives zbase::zbase, and zbase::zbase_static for a program in one piece.
set_target_properties(zbase_shared PROPERTIES EXPORT_NAME zbase)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zbase)
configure_package_config_file(cmake/zbaseConfig.cmake.in zbaseConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(zbaseConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT zbaseTargets NAMESPACE zbase:: DESTINATION ${package_dir} COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/zbaseConfig.cmake ${CMAKE_BINARY_DIR}/zbaseConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

configure_file(cmake/zbase.pc.in zbase.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zbase.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# One page a C function, made from its header; the command's is written by hand.
set(man_folder ${CMAKE_BINARY_DIR}/man/man3)
set(ZBASE_C_HEADERS)
foreach(header ${ZBASE_INSTALLED_HEADERS})
  file(STRINGS ${header} c_functions REGEX "^Z_BEGIN_C")
  if(c_functions)
    list(APPEND ZBASE_C_HEADERS ${header})
  endif()
endforeach()
add_custom_command(OUTPUT ${man_folder}/made
  COMMAND ${CMAKE_SOURCE_DIR}/docs/make-man ${man_folder} ${PROJECT_VERSION} ${ZBASE_C_HEADERS}
  COMMAND ${CMAKE_COMMAND} -E touch ${man_folder}/made
  DEPENDS docs/make-man ${ZBASE_C_HEADERS}
  VERBATIM)
add_custom_target(man ALL DEPENDS ${man_folder}/made)
install(DIRECTORY ${man_folder} DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.3")
install(DIRECTORY share/zbase DESTINATION ${CMAKE_INSTALL_DATADIR} COMPONENT runtime)
install(FILES docs/zstz.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES tools/zstz.bash-completion RENAME zstz
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime)
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zbase)
set(CPACK_PACKAGE_VENDOR "the zbase founders")
set(CPACK_PACKAGE_CONTACT "the zbase founders <founders@zbase.invalid>")
set(CPACK_PACKAGE_VERSION 6.0.0)
set(CPACK_COMPONENTS_ALL runtime development python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(ZBASE_BITS EQUAL 32)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzbase6)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Foundation library with a configuration database in stanza files
Strings, containers, locks among threads and processes, threads and a pool,
and configuration files that programs and people edit together. With the
command zstz, which reads and changes such files from the shell.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzbase-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libzbase6 (= ${CPACK_PACKAGE_VERSION}), zlib1g-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "Foundation library with a configuration database: development files
Headers, static library, manual pages, and the files by which CMake and
pkg-config find libzbase.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zbase)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3 (>= 3.9), libzbase6 (>= ${CPACK_PACKAGE_VERSION})")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
  "Configuration in stanza files, edited by programs and people (Python 3)
A mapping of mappings with the names that configparser has, updates that
lose nothing, and a watch that tells what others have changed.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
