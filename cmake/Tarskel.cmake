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

# tarskel_library(NAME <target> [DEPS <targets>...] [PRIVATE_DEPS <targets>...])
# Sources are src/*.cpp plus src/linux/*.cpp on Linux, src/darwin/*.{cpp,mm} on Apple.
function(tarskel_library)
  cmake_parse_arguments(ARG "" "NAME" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB _srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp)
  if(APPLE)
    file(GLOB _plat CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/darwin/*.cpp
         ${CMAKE_CURRENT_SOURCE_DIR}/src/darwin/*.mm)
  else()
    file(GLOB _plat CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/linux/*.cpp)
  endif()
  if(NOT _srcs AND NOT _plat)
    message(STATUS "${ARG_NAME}: no sources yet, skipped")
    return()
  endif()
  add_library(${ARG_NAME} STATIC ${_srcs} ${_plat})
  add_library(Tarskel::${ARG_NAME} ALIAS ${ARG_NAME})
  target_include_directories(${ARG_NAME} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include
                                         PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_compile_options(${ARG_NAME} PRIVATE ${TARSKEL_WARNINGS})
  target_link_libraries(${ARG_NAME} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# tarskel_test(NAME <binary> [DEPS <targets>...])
# One GoogleTest binary from tests/*.cpp, registered with ctest.
function(tarskel_test)
  if(NOT TARSKEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "NAME" "DEPS" ${ARGN})
  file(GLOB _srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/*.cpp)
  if(NOT _srcs)
    return()
  endif()
  add_executable(${ARG_NAME} ${_srcs})
  target_compile_options(${ARG_NAME} PRIVATE ${TARSKEL_WARNINGS})
  target_include_directories(${ARG_NAME} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tests)
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPS} GTest::gtest_main GTest::gmock)
  include(GoogleTest)
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60
                       PROPERTIES ENVIRONMENT "TARSKEL_BUILD_DIR=${CMAKE_BINARY_DIR}")
endfunction()
