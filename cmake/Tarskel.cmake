# One helper per kind of target keeps every package alike.

set(TARSKEL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Wold-style-cast -Wcast-align -Wunused -Woverloaded-virtual
    -Wimplicit-fallthrough)
if(TARSKEL_WERROR)
  list(APPEND TARSKEL_WARNINGS -Werror)
endif()

if(TARSKEL_SANITIZE)
  add_compile_options(-fsanitize=${TARSKEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARSKEL_SANITIZE})
endif()

# tarskel_library(NAME <target> SOURCES <files>... [LINUX_SOURCES <files>...]
#                 [DARWIN_SOURCES <files>...] [DEPS <targets>...] [PRIVATE_DEPS <targets>...])
# Sources are listed, never globbed: a file moved or added shows up in review
# and can't drop out of the build unnoticed. Paths are relative to the package.
function(tarskel_library)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;LINUX_SOURCES;DARWIN_SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  set(_srcs ${ARG_SOURCES})
  if(APPLE OR TARSKEL_DARWIN_SIM)
    list(APPEND _srcs ${ARG_DARWIN_SOURCES})
  else()
    list(APPEND _srcs ${ARG_LINUX_SOURCES})
  endif()
  add_library(${ARG_NAME} STATIC ${_srcs})
  if(TARSKEL_DARWIN_SIM AND ARG_DARWIN_SOURCES)
    # The Darwin adapters on the host, against the simulator, with their lines counted.
    target_link_libraries(${ARG_NAME} PRIVATE TarskelDarwinSim)
    set_source_files_properties(${ARG_DARWIN_SOURCES} PROPERTIES COMPILE_OPTIONS --coverage)
  endif()
  add_library(Tarskel::${ARG_NAME} ALIAS ${ARG_NAME})
  target_include_directories(${ARG_NAME} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
                                                $<INSTALL_INTERFACE:include>
                                         PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_compile_options(${ARG_NAME} PRIVATE ${TARSKEL_WARNINGS})
  target_link_libraries(${ARG_NAME} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# tarskel_executable(NAME <target> SOURCES <files>... [DEPS <targets>...]
#                    [DEFINITIONS <name=value>...] [NEEDS <targets>...])
# Every program of the tree: the daemon, the tool, tests, benchmarks, fuzzers.
# NEEDS names targets that must be built first (a program a test runs).
function(tarskel_executable)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPS;DEFINITIONS;NEEDS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_compile_options(${ARG_NAME} PRIVATE ${TARSKEL_WARNINGS})
  target_compile_definitions(${ARG_NAME} PRIVATE ${ARG_DEFINITIONS})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPS})
  if(ARG_NEEDS)
    add_dependencies(${ARG_NAME} ${ARG_NEEDS})
  endif()
endfunction()

# tarskel_test(NAME <binary> SOURCES <files>... [LINUX_SOURCES <files>...]
#              [DARWIN_SOURCES <files>...] [DEPS <targets>...]
#              [DEFINITIONS <name=value>...] [NEEDS <targets>...] [INCLUDES <dirs>...]
#              [TIMEOUT <seconds>] [ENVIRONMENT <name=value>])
# One GoogleTest binary per package (and one for the end-to-end tests),
# registered with ctest; tests/ beside the CMakeLists is on its include path.
# Platform sources are picked as tarskel_library picks them; ENVIRONMENT is
# one more variable its tests run with.
function(tarskel_test)
  if(NOT TARSKEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "NAME;TIMEOUT;ENVIRONMENT"
                        "SOURCES;LINUX_SOURCES;DARWIN_SOURCES;DEPS;DEFINITIONS;NEEDS;INCLUDES" ${ARGN})
  if(APPLE OR TARSKEL_DARWIN_SIM)
    list(APPEND ARG_SOURCES ${ARG_DARWIN_SOURCES})
  else()
    list(APPEND ARG_SOURCES ${ARG_LINUX_SOURCES})
  endif()
  set(_properties ENVIRONMENT "TARSKEL_BUILD_DIR=${CMAKE_BINARY_DIR}")
  if(ARG_TIMEOUT)
    list(APPEND _properties TIMEOUT ${ARG_TIMEOUT})
  endif()
  if(ARG_ENVIRONMENT)
    string(REGEX REPLACE "^([^=]*)=" "\\1=set:" _set "${ARG_ENVIRONMENT}")
    list(APPEND _properties ENVIRONMENT_MODIFICATION "${_set}")
  endif()
  tarskel_executable(NAME ${ARG_NAME} SOURCES ${ARG_SOURCES}
                     DEPS ${ARG_DEPS} TarskelTestSupport GTest::gtest_main GTest::gmock
                     DEFINITIONS ${ARG_DEFINITIONS} NEEDS ${ARG_NEEDS})
  if(TARSKEL_DARWIN_SIM)
    # A test that leaves a simulated object alive fails.
    target_link_libraries(${ARG_NAME} PRIVATE TarskelDarwinSimLeakCheck)
  endif()
  target_include_directories(${ARG_NAME} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tests ${ARG_INCLUDES})
  include(GoogleTest)
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES ${_properties})
endfunction()

# ---- The libraries as a product ------------------------------------------------
# tarskel_version_header(<target>)
# The one version of the tree, from project(VERSION), as the header
# "tarskel/protocol/base/Version.hpp" on <target>'s public include path.
function(tarskel_version_header target)
  set(_dir ${PROJECT_BINARY_DIR}/generated/include)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/Version.hpp.in
                 ${_dir}/tarskel/protocol/base/Version.hpp @ONLY)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${_dir}>)
  install(FILES ${_dir}/tarskel/protocol/base/Version.hpp
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarskel/protocol/base COMPONENT Development)
endfunction()

# tarskel_install_libraries(<target>...)
# Installs each package library (the archive and its include/ tree) and
# exports it as Tarskel::<name without the "Tarskel" prefix>, with
# TarskelConfig.cmake and TarskelConfigVersion.cmake for
# find_package(Tarskel CONFIG), all in the install component "Development"
# (`cmake --install <dir> --component Development` installs only them). In the
# tree both names work: TarskelProtocol and Tarskel::Protocol.
function(tarskel_install_libraries)
  include(CMakePackageConfigHelpers)
  set(_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/Tarskel)
  foreach(target ${ARGN})
    string(REGEX REPLACE "^Tarskel" "" _short ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${_short})
    add_library(Tarskel::${_short} ALIAS ${target})
    get_target_property(_src ${target} SOURCE_DIR)
    install(DIRECTORY ${_src}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            COMPONENT Development)
  endforeach()
  install(TARGETS ${ARGN} EXPORT TarskelTargets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT TarskelTargets NAMESPACE Tarskel:: DESTINATION ${_cmakedir}
          COMPONENT Development)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TarskelConfig.cmake.in
                                 ${PROJECT_BINARY_DIR}/TarskelConfig.cmake
                                 INSTALL_DESTINATION ${_cmakedir})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarskelConfigVersion.cmake
                                   VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/TarskelConfig.cmake
                ${PROJECT_BINARY_DIR}/TarskelConfigVersion.cmake
          DESTINATION ${_cmakedir} COMPONENT Development)
endfunction()
