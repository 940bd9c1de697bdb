# pocatalog_room(NAME [SOURCES...]): the object library of one folder.
function(pocatalog_room name)
  add_library(pocatalog_${name} OBJECT ${ARGN})
  target_link_libraries(pocatalog_${name} PUBLIC Boost::headers SQLite::SQLite3 Threads::Threads)
endfunction()

# pocatalog_installable(TARGET): a library that users link, with the headers' root as include folder.
function(pocatalog_installable target)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/pocatalog>)
  install(TARGETS ${target} EXPORT pocatalog)
endfunction()

# pocatalog_install_headers(ROOM): the room's public headers. A header named *_internal.h stays here.
function(pocatalog_install_headers room)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${room}/*.h)
  list(FILTER headers EXCLUDE REGEX "_internal\\.h$")
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pocatalog/${room})
endfunction()

# pocatalog_test(NAME SOURCES...): one test program over the library's own objects, so that hidden
# symbols can be tested, and over the reference host.
function(pocatalog_test name)
  add_executable(${name} ${ARGN} ${POCATALOG_OBJECTS})
  target_link_libraries(${name} PRIVATE pocatalog-refhost SQLite::SQLite3 Boost::filesystem
                        Threads::Threads GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} TEST_FILTER "${POCATALOG_TEST_FILTER}" DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 300 LABELS ${name})
endfunction()
