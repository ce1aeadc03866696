# ccx2krx against CalculiX itself: gmsh meshes of a bracket, a hexahedral bar and a wedge prism,
# exported and checked against CalculiX's output files and the geometries' exact mass properties.
# ccx and gmsh are required: without them the test fails.
add_test(NAME calculix.pytest
         COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider
                 --basetemp=${CMAKE_CURRENT_BINARY_DIR}/calculix
                 ${CMAKE_CURRENT_SOURCE_DIR}/calculix)
# CCX2KRX_MPI says whether the tool has --solver mpi; its tests start mpirun (MPIEXEC) and
# share the MPI tests' lock, since both oversubscribe the machine.
if(CCX2KRX_PARALLEL)
  set(KRX_CCX_MPI "CCX2KRX_MPI=1;MPIEXEC=${MPIEXEC_EXECUTABLE}")
else()
  set(KRX_CCX_MPI "CCX2KRX_MPI=0")
endif()
set_tests_properties(calculix.pytest PROPERTIES TIMEOUT 600 RESOURCE_LOCK mpi ENVIRONMENT
  "PYTHONDONTWRITEBYTECODE=1;CCX2KRX=$<TARGET_FILE:ccx2krx>;KRXDUMP=$<TARGET_FILE:krxdump>;TMP=${CMAKE_CURRENT_BINARY_DIR};${KRX_CCX_MPI};LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/parallel/lsan.supp:fast_unwind_on_malloc=0")
