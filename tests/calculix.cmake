# ccx2krx against CalculiX itself: gmsh meshes of a bracket, a hexahedral bar and a wedge prism,
# exported and checked against CalculiX's output files and the geometries' exact mass properties.
# ccx and gmsh are required: without them the test fails.
add_test(NAME calculix.pytest
         COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider
                 --basetemp=${CMAKE_CURRENT_BINARY_DIR}/calculix
                 ${CMAKE_CURRENT_SOURCE_DIR}/calculix)
set_tests_properties(calculix.pytest PROPERTIES TIMEOUT 600 ENVIRONMENT
  "PYTHONDONTWRITEBYTECODE=1;CCX2KRX=$<TARGET_FILE:ccx2krx>;KRXDUMP=$<TARGET_FILE:krxdump>;MOUNTED_BODY=$<TARGET_FILE:mounted_body>;KRXLIB=$<TARGET_FILE:krxlib>;TMP=${CMAKE_CURRENT_BINARY_DIR}")
