# ccx2krx's parallel solver under mpirun, on one rank and on two (oversubscribed, so that a
# machine with fewer cores runs them too). Open MPI refuses root unless told, as in CI's
# containers; its own allocations that live until exit are kept out of the leak report.
if(CCX2KRX_PARALLEL)
  add_executable(test_parallel_solver ${CMAKE_CURRENT_SOURCE_DIR}/parallel/test_parallel_solver.cpp)
  target_link_libraries(test_parallel_solver PRIVATE ccx2krx_parallel GTest::gtest)
  target_compile_definitions(test_parallel_solver
                             PRIVATE KRX_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}")
  set(KRX_MPI_ENVIRONMENT
      "OMPI_ALLOW_RUN_AS_ROOT=1;OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1;OMP_NUM_THREADS=1"
      "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/parallel/lsan.supp:fast_unwind_on_malloc=0")
  foreach(ranks 1 2)
    add_test(NAME parallel.solver.${ranks}
             COMMAND ${MPIEXEC_EXECUTABLE} -n ${ranks} --oversubscribe
                     $<TARGET_FILE:test_parallel_solver>)
    set_tests_properties(parallel.solver.${ranks} PROPERTIES TIMEOUT 120 RESOURCE_LOCK mpi
                         ENVIRONMENT "${KRX_MPI_ENVIRONMENT}")
  endforeach()
endif()
