# The floors of src/ (base, model, processing and mesh, format, inspect, host): every include
# runs to the file's own folder or to a lower floor. The second test shows that the check refuses
# an upward and a sideways include, in a small tree of broken sources under data/layers.
find_program(KRX_BASH bash REQUIRED)
add_test(NAME Layers.EveryIncludeRunsDown
         COMMAND ${KRX_BASH} ${PROJECT_SOURCE_DIR}/scripts/check-layers.sh ${PROJECT_SOURCE_DIR})
add_test(NAME Layers.UpwardAndSidewaysIncludesAreRefused
         COMMAND ${CMAKE_COMMAND} -DTOOL=${KRX_BASH}
                 "-DARGS=${PROJECT_SOURCE_DIR}/scripts/check-layers.sh|${CMAKE_CURRENT_SOURCE_DIR}/data/layers"
                 -DDATA=${CMAKE_CURRENT_SOURCE_DIR}/data -DOUT=${CMAKE_CURRENT_BINARY_DIR}
                 -DEXPECTED=layers_refused.txt -DSTATUS=1
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/support/krxdump_run.cmake)
