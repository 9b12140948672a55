# Helpers every CMakeLists.txt of the project uses to declare its targets.
#
#   tunnel_add_library(tunnel_<name> SOURCES ... [DEPS ...])
#       Static library with alias Tunnel::<name>, installed and exported.
#   tunnel_add_test(<target> SOURCES ... [DEPS ...])
#       GoogleTest executable; each test case becomes a ctest test. Skipped
#       while SOURCES is empty (a glob that matches nothing yet).
#   tunnel_add_executable(<target> SOURCES ... [DEPS ...] [INSTALL])
#       Program of ours (tools, benchmarks, fuzzers, examples).
#   tunnel_target_warnings(<target>)
#       The project warning set, for targets made without the helpers above.
#
# Warnings are errors on our own targets only; third-party code is compiled
# with its own flags.
include_guard(GLOBAL)

include(GoogleTest)

set(TUNNEL_WARNING_FLAGS -Wall -Wextra -Werror)

function(tunnel_target_warnings target)
  target_compile_options(${target} PRIVATE ${TUNNEL_WARNING_FLAGS})
endfunction()

function(tunnel_add_library target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;DEPS")
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tunnel_add_library(${target}): unexpected arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "tunnel_add_library(${target}): no SOURCES")
  endif()
  if(NOT target MATCHES "^tunnel_([A-Za-z0-9_]+)$")
    message(FATAL_ERROR "tunnel_add_library(${target}): library targets are named tunnel_<name>")
  endif()
  set(name "${CMAKE_MATCH_1}")

  add_library(${target} STATIC ${ARG_SOURCES})
  add_library(Tunnel::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(${target} PUBLIC cxx_std_20)
  # Includes are written from the repository root: "framework/Vela/Ptr.h".
  target_include_directories(${target} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>"
    "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tunnel>")
  if(ARG_DEPS)
    target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  endif()
  tunnel_target_warnings(${target})

  install(TARGETS ${target}
    EXPORT TunnelTargets
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  set_property(GLOBAL APPEND PROPERTY TUNNEL_LIBRARIES ${target})
endfunction()

function(tunnel_add_test target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;DEPS")
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tunnel_add_test(${target}): unexpected arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_SOURCES)
    # Test folders usually glob their *Test.cpp files; until the first one is
    # written there is nothing to build.
    message(STATUS "tunnel_add_test(${target}): no test sources yet, not built")
    return()
  endif()
  if(NOT TARGET GTest::gtest_main OR NOT TARGET GTest::gmock)
    find_package(GTest REQUIRED)
  endif()

  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE ${ARG_DEPS} GTest::gtest_main GTest::gmock)
  tunnel_target_warnings(${target})
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60)
endfunction()

function(tunnel_add_executable target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "INSTALL" "" "SOURCES;DEPS")
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tunnel_add_executable(${target}): unexpected arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "tunnel_add_executable(${target}): no SOURCES")
  endif()

  add_executable(${target} ${ARG_SOURCES})
  if(ARG_DEPS)
    target_link_libraries(${target} PRIVATE ${ARG_DEPS})
  endif()
  tunnel_target_warnings(${target})
  if(ARG_INSTALL)
    install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  endif()
endfunction()

# Sets <out> to the names of the sub-folders of <dir> that have a
# CMakeLists.txt. The glob is re-checked on every build, so a folder that gets
# its CMakeLists.txt later reconfigures existing build trees by itself.
function(tunnel_subdirectories_with_lists out dir)
  file(GLOB lists CONFIGURE_DEPENDS RELATIVE "${dir}" "${dir}/*/CMakeLists.txt")
  set(names)
  foreach(list IN LISTS lists)
    get_filename_component(name "${list}" DIRECTORY)
    list(APPEND names "${name}")
  endforeach()
  set(${out} "${names}" PARENT_SCOPE)
endfunction()

# Installs every header under the given folders into include/tunnel/,
# keeping the paths, so installed code includes "framework/Vela/Ptr.h" as the
# sources do. Globbed at configure time and re-checked on every build.
function(tunnel_install_headers)
  foreach(dir IN LISTS ARGN)
    if(NOT IS_DIRECTORY "${PROJECT_SOURCE_DIR}/${dir}")
      continue()
    endif()
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS
      RELATIVE "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/${dir}/*.h")
    foreach(header IN LISTS headers)
      get_filename_component(subdir "${header}" DIRECTORY)
      install(FILES "${PROJECT_SOURCE_DIR}/${header}"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tunnel/${subdir}")
    endforeach()
  endforeach()
endfunction()

# TunnelTargets.cmake, TunnelConfig.cmake and TunnelConfigVersion.cmake.
# Called once, after all libraries have been declared.
function(tunnel_install_package)
  get_property(libraries GLOBAL PROPERTY TUNNEL_LIBRARIES)
  if(NOT libraries)
    return()
  endif()
  include(CMakePackageConfigHelpers)
  set(config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/Tunnel")
  install(EXPORT TunnelTargets NAMESPACE Tunnel:: DESTINATION "${config_dir}")
  configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/TunnelConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/TunnelConfig.cmake"
    INSTALL_DESTINATION "${config_dir}")
  write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/TunnelConfigVersion.cmake"
    VERSION "${PROJECT_VERSION}"
    COMPATIBILITY SameMajorVersion)
  install(FILES
    "${PROJECT_BINARY_DIR}/TunnelConfig.cmake"
    "${PROJECT_BINARY_DIR}/TunnelConfigVersion.cmake"
    DESTINATION "${config_dir}")
endfunction()
