# The headers stand in folders by subsystem and are included by their names alone, as clients do.
# Two folders of links in the build folder show them so:
#   include/Z    what gets installed: for examples, tools, benchmarks and tests
#   internal/Z   all headers: for the library, and for tests of what stays inside
file(GLOB_RECURSE ZBASE_HEADERS CONFIGURE_DEPENDS src/Z/*.h src/Z/*.hpp)
set(ZBASE_INCLUDE ${CMAKE_BINARY_DIR}/include)
set(ZBASE_INTERNAL ${CMAKE_BINARY_DIR}/internal)
file(REMOVE_RECURSE ${ZBASE_INCLUDE} ${ZBASE_INTERNAL})
file(MAKE_DIRECTORY ${ZBASE_INCLUDE}/Z ${ZBASE_INTERNAL}/Z)
file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/qel ${ZBASE_INTERNAL}/qel SYMBOLIC)

# Headers say themselves when they stay inside.
set(ZBASE_INSTALLED_HEADERS)
foreach(header ${ZBASE_HEADERS})
  get_filename_component(name ${header} NAME)
  file(CREATE_LINK ${header} ${ZBASE_INTERNAL}/Z/${name} SYMBOLIC)
  file(STRINGS ${header} first_lines LIMIT_COUNT 6)
  string(REPLACE ";// " " " first_lines "${first_lines}")
  if(NOT first_lines MATCHES "Never installed")
    list(APPEND ZBASE_INSTALLED_HEADERS ${header})
    file(CREATE_LINK ${header} ${ZBASE_INCLUDE}/Z/${name} SYMBOLIC)
  endif()
endforeach()

# Reports name a file as short as ever, whatever folder it stands in: src/Z/ZLock.cpp.
file(GLOB_RECURSE entries CONFIGURE_DEPENDS LIST_DIRECTORIES true src/Z/*)
set(ZBASE_SHORT_NAMES -fmacro-prefix-map=${ZBASE_INTERNAL}/Z/=src/Z/)
foreach(entry ${entries})
  if(IS_DIRECTORY ${entry})
    list(APPEND ZBASE_SHORT_NAMES -fmacro-prefix-map=${entry}/=src/Z/)
  endif()
endforeach()
