# Golden runs of the dump tool: the command, the expected output file and the exit status.
# Regenerate an expected file only deliberately: krxdump <args> > tests/data/<name>.txt
set(KRXDUMP_CASES
  "default|bracket_xdr.krx|1"
  "single_b8|bracket_single.krx|-b|8|0"
  "single_b18|bracket_single.krx|-b|18|0"
  "single_b21|bracket_single.krx|-b|21|0"
  "single_b23|bracket_single.krx|-b|23|0"
  "single_b25|bracket_single.krx|-b|25|0"
  "single_b26|bracket_single.krx|-b|26|0"
  "single_tail|bracket_single.krx|-b|19|-b|20|0"
  "xdr_b24|bracket_xdr.krx|-b|24|0"
  "xdr_b27|bracket_xdr.krx|-b|27|0"
  "xdr_b28|bracket_xdr.krx|-b|28|0"
  "xdr_b29|bracket_xdr.krx|-b|29|0"
  "xdr_b30|bracket_xdr.krx|-b|30|0"
  "xdr_b31|bracket_xdr.krx|-b|31|0"
  "xdr_b32|bracket_xdr.krx|-b|32|0"
  "old_default|bracket_82.krx|1"
  "old_b18|bracket_82.krx|-b|18|0"
  "list|bracket_xdr.krx|-l|0"
  "list_odd|bracket_xdr.krx|-b|-l|0"
  "no_block|bracket_xdr.krx|-b|40|0"
  "no_switch|bracket_xdr.krx|-x|3|0"
  "no_file|missing.krx|0"
  "usage|0")
include(${CMAKE_CURRENT_SOURCE_DIR}/support/golden.cmake)
add_golden_runs(krxdump krxdump ${KRXDUMP_CASES})
