# The installed package is enough to build an agent: installs this build into a fresh prefix,
# configures and builds examples/agent against that prefix alone (find_package(ObaEvpn)), and runs
# it. It fails if a public header includes one that was not installed (every installed header is
# compiled on its own include root), if a symbol the example needs is hidden (the link fails), or
# if the example does not reach every machine's chip calls.
#
#   cmake -DBUILD_DIR=<build> -DSOURCE_DIR=<source> -DWORK_DIR=<scratch>
#         -DCXX=<compiler> [-DCXX_FLAGS=<flags>] -P tests/package/example.cmake
cmake_minimum_required(VERSION 3.20)

foreach(var BUILD_DIR SOURCE_DIR WORK_DIR CXX)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "example.cmake: -D${var}=... is required")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(agent ${WORK_DIR}/agent)
file(REMOVE_RECURSE ${WORK_DIR})

function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "example.cmake: ${what} failed (${rc}):\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

step("installing the library" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
     --component library)
# Every installed header compiles on its own include root: a header that includes one that was not
# installed fails here even if the example does not include it.
set(headers ${WORK_DIR}/headers)
file(GLOB_RECURSE installed RELATIVE ${prefix}/include/ObaEvpn ${prefix}/include/ObaEvpn/*.h)
list(SORT installed)
set(includes "")
foreach(h ${installed})
  string(APPEND includes "#include \"${h}\"\n")
endforeach()
file(WRITE ${headers}/headers.cpp "${includes}")
file(WRITE ${headers}/CMakeLists.txt "cmake_minimum_required(VERSION 3.20)
project(ObaHeaders LANGUAGES CXX)
find_package(ObaEvpn REQUIRED)
add_library(headers OBJECT headers.cpp)
target_link_libraries(headers PRIVATE ObaEvpn::ObaEvpn)
")
step("configuring the header check" ${CMAKE_COMMAND} -S ${headers} -B ${headers}/build -G Ninja
     -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix}
     -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
step("compiling every installed header" ${CMAKE_COMMAND} --build ${headers}/build)

# Only the prefix: the example must not see the source tree or the build's own package files.
step("configuring the example" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/agent -B ${agent}
     -G Ninja -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
     -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
     -DCMAKE_BUILD_TYPE=RelWithDebInfo)
step("building the example" ${CMAKE_COMMAND} --build ${agent})
step("running the example" ${agent}/oba-example-agent)
message("${output}")

# Each machine reached its chip: the output names one call or result of each.
foreach(expected
    "chip: getHwTunnelId -> 1"                                        # hardware tunnel ids
    "chip: createEsiData Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1"     # ESI flooding
    "chip: createVlanToDot1qMapping Ethernet2 vlan 10 dot1q 100"      # dot1q flooding
    "chip: createEsiPortMap label 3001 intf Port-Channel10"           # ESI filtering on decap
    "MPLS flood set: vlan 10 mpls(Tunnel1.1, 1001)"                   # flood-set filter
    "hwInfoMapping: Tunnel1.1 label 1001 -> hw FEC "                  # flood-set FECs
    "chip: flood list vlan 10 00:00:00:00:00:00 member Tunnel1.1 label 1001 hw tunnel 1"  # lists
    "objTupleToHwId: "                                                # MAC-address FECs
    "chip: releaseHwTunnelId 1"                                       # the restart gave ids back
    "stopped")
  string(FIND "${output}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "example.cmake: the example's output lacks \"${expected}\"")
  endif()
endforeach()
