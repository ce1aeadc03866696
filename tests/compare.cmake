# The comparison tests run the krxcompare tool.
if(TARGET test_compare AND TARGET krxcompare)
  add_dependencies(test_compare krxcompare)
endif()

# Golden runs of the comparison tool on the reader's brackets: name, arguments, exit status.
# Regenerate an expected file only deliberately: krxcompare <args> > tests/data/krxcompare_<name>.txt
set(KRXCOMPARE_CASES
  "self_v2|-v|2|bracket_xdr.krx|bracket_xdr.krx|0"
  "single|bracket_xdr.krx|bracket_single.krx|0"
  "old_v2|-v|2|bracket_xdr.krx|bracket_82.krx|0"
  "help|--help|0")
foreach(case ${KRXCOMPARE_CASES})
  string(REPLACE "|" ";" parts "${case}")
  list(POP_FRONT parts name)
  list(POP_BACK parts status)
  string(REPLACE ";" "|" args "${parts}")
  add_test(NAME krxcompare_${name}
           COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:krxcompare> "-DARGS=${args}"
                   -DDATA=${CMAKE_CURRENT_SOURCE_DIR}/data -DOUT=${CMAKE_CURRENT_BINARY_DIR}
                   -DEXPECTED=krxcompare_${name}.txt -DSTATUS=${status}
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/support/krxdump_run.cmake)
endforeach()
