# The numerics tests compare the QZ kernels against the reference LAPACK; the library never links it.
if(TARGET test_numerics)
  target_link_libraries(test_numerics PRIVATE lapack)
endif()
