# Golden runs of a command-line tool: each case is "name|argument|...|exit status"; the tool's
# output must equal tests/data/<prefix>_<name>.txt byte for byte.
function(add_golden_runs tool prefix)
  foreach(case ${ARGN})
    string(REPLACE "|" ";" parts "${case}")
    list(POP_FRONT parts name)
    list(POP_BACK parts status)
    string(REPLACE ";" "|" args "${parts}")
    add_test(NAME ${prefix}_${name}
             COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:${tool}> "-DARGS=${args}"
                     -DDATA=${CMAKE_CURRENT_SOURCE_DIR}/data -DOUT=${CMAKE_CURRENT_BINARY_DIR}
                     -DEXPECTED=${prefix}_${name}.txt -DSTATUS=${status}
                     -P ${CMAKE_CURRENT_SOURCE_DIR}/support/krxdump_run.cmake)
  endforeach()
endfunction()
