# ccx2krx against CalculiX itself: gmsh meshes of a bracket, a hexahedral bar and a wedge prism,
# exported and checked against CalculiX's output files and the geometries' exact mass properties.
# ccx and gmsh are required: without them the test fails. One test per file, so that they run
# side by side. read_api_dump reads a file through the C read API for the comparison with the
# Python reader. CCX2KRX_MPI says whether the tool has --solver mpi; test_parallel starts mpirun
# (MPIEXEC) and shares the MPI tests' lock, since both oversubscribe the machine. Open MPI's
# lifelong allocations (the own path's inertia count starts it too) stay out of the leak report.
add_executable(read_api_dump ${CMAKE_CURRENT_SOURCE_DIR}/hosts/read_api_dump.c)
target_link_libraries(read_api_dump PRIVATE krxlib)
if(CCX2KRX_PARALLEL)
  set(KRX_CCX_MPI "CCX2KRX_MPI=1;MPIEXEC=${MPIEXEC_EXECUTABLE}")
else()
  set(KRX_CCX_MPI "CCX2KRX_MPI=0")
endif()
set(KRX_CCX_LSAN
    "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/parallel/lsan.supp:fast_unwind_on_malloc=0")
# pytest makes each test's --basetemp, but not the folder that holds them.
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/calculix)
file(GLOB KRX_CALCULIX_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/calculix/test_*.py)
foreach(file ${KRX_CALCULIX_TESTS})
  get_filename_component(name ${file} NAME_WE)
  add_test(NAME calculix.${name}
           COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider
                   --basetemp=${CMAKE_CURRENT_BINARY_DIR}/calculix/${name} ${file})
  set_tests_properties(calculix.${name} PROPERTIES TIMEOUT 600 ENVIRONMENT
    "PYTHONDONTWRITEBYTECODE=1;CCX2KRX=$<TARGET_FILE:ccx2krx>;KRXDUMP=$<TARGET_FILE:krxdump>;MOUNTED_BODY=$<TARGET_FILE:mounted_body>;READ_API_DUMP=$<TARGET_FILE:read_api_dump>;TMP=${CMAKE_CURRENT_BINARY_DIR};${KRX_CCX_MPI};${KRX_CCX_LSAN}")
  if(name STREQUAL "test_parallel")
    set_tests_properties(calculix.${name} PROPERTIES RESOURCE_LOCK mpi)
  endif()
endforeach()
