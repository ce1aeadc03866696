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
include(${CMAKE_CURRENT_SOURCE_DIR}/support/golden.cmake)
add_golden_runs(krxcompare krxcompare ${KRXCOMPARE_CASES})
