# Compares the dynamic symbol table of the shared library with the entries a host may call and
# the read entries of krx_read.h.
# Usage: cmake -DNM=<nm> -DLIBRARY=<libkrxlib.so> -P check_exports.cmake
set(expected
  KRX_CREATE
  KRX_SET_FACE
  KRX_SET_GENERALIZED_MASS
  KRX_SET_GENERALIZED_STIFFNESS
  KRX_SET_HEADER
  KRX_SET_INTERFACE_NODE
  KRX_SET_MODAL_STRAIN_VEC
  KRX_SET_MODAL_STRESS_VEC
  KRX_SET_MODE_SHAPE_VEC
  KRX_SET_NODAL_INERTIA
  KRX_SET_NODAL_MASS
  KRX_SET_NODE_COORDINATES_VEC
  KRX_TERMINATE
  KRX_UNITS_SI_MULTIPLIERS
  KRX_WRITE_KRX
  KRX_WRITE_VELOX_KRX
  krx_register_host_callbacks
  krx_close
  krx_count
  krx_error_message
  krx_has_block
  krx_open
  krx_read_body_properties
  krx_read_coordinates
  krx_read_eigenvalues
  krx_read_faces
  krx_read_generalized_matrix
  krx_read_header
  krx_read_interface_nodes
  krx_read_invariant
  krx_read_mode
  krx_read_mode_node_ids
  krx_read_nodal_inertias
  krx_read_nodal_masses
  krx_read_node_ids
  krx_read_transformation
  krx_read_units
  krx_read_version
)

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE table
                RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${table}")
set(found)
foreach(line ${lines})
  if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] +([^ ]+)$")
    list(APPEND found ${CMAKE_MATCH_1})
  endif()
endforeach()
list(SORT found)
list(SORT expected)
if(NOT found STREQUAL expected)
  set(extra ${found})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${found})
  message(FATAL_ERROR "Exported symbols differ.\n  not expected: ${extra}\n  missing: ${missing}")
endif()
message(STATUS "Exports: ${found}")
