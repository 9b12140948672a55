# Checks that an installed Tunnel is usable by another project: installs the
# build tree into a scratch prefix, then configures, builds and runs the
# consumer project in tests/install/ against it with find_package(Tunnel).
#
#   cmake -DTUNNEL_BUILD_DIR=<build> -DTUNNEL_CONSUMER_DIR=<tests/install>
#         -DTUNNEL_WORK_DIR=<scratch> -DTUNNEL_GENERATOR=<generator>
#         -DTUNNEL_CXX_COMPILER=<c++> [-DTUNNEL_CONFIG=<config>]
#         -P TunnelInstallConsumer.cmake
cmake_minimum_required(VERSION 3.25)

foreach(var IN ITEMS TUNNEL_BUILD_DIR TUNNEL_CONSUMER_DIR TUNNEL_WORK_DIR TUNNEL_GENERATOR TUNNEL_CXX_COMPILER)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "install consumer: ${var} is not set")
  endif()
endforeach()

function(run_step step)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install consumer: ${step} failed (${rc}):\n${out}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix "${TUNNEL_WORK_DIR}/prefix")
set(build "${TUNNEL_WORK_DIR}/build")
file(REMOVE_RECURSE "${TUNNEL_WORK_DIR}")

set(config_args)
if(TUNNEL_CONFIG)
  set(config_args --config "${TUNNEL_CONFIG}")
endif()

run_step(install "${CMAKE_COMMAND}" --install "${TUNNEL_BUILD_DIR}" --prefix "${prefix}" ${config_args})

run_step(configure "${CMAKE_COMMAND}" -S "${TUNNEL_CONSUMER_DIR}" -B "${build}"
  -G "${TUNNEL_GENERATOR}"
  "-DCMAKE_CXX_COMPILER=${TUNNEL_CXX_COMPILER}"
  "-DCMAKE_BUILD_TYPE=${TUNNEL_CONFIG}"
  "-DCMAKE_PREFIX_PATH=${prefix}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)

run_step(build "${CMAKE_COMMAND}" --build "${build}" ${config_args})

find_program(consumer tunnel_consumer PATHS "${build}" "${build}/${TUNNEL_CONFIG}" NO_DEFAULT_PATH)
if(NOT consumer)
  message(FATAL_ERROR "install consumer: tunnel_consumer was not built")
endif()
run_step(run "${consumer}")
message(STATUS "install consumer: ${step_output}")
