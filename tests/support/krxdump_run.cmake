# Runs krxdump with ARGS ("|"-separated) and compares its output and exit status with EXPECTED.
string(REPLACE "|" ";" arguments "${ARGS}")
execute_process(COMMAND ${TOOL} ${arguments} WORKING_DIRECTORY ${DATA}
                OUTPUT_VARIABLE output RESULT_VARIABLE status)
file(READ ${DATA}/${EXPECTED} expected)
if(NOT status STREQUAL STATUS)
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}")
endif()
if(NOT output STREQUAL expected)
  file(WRITE ${OUT}/${EXPECTED}.actual "${output}")
  message(FATAL_ERROR "output differs from ${EXPECTED}; see ${OUT}/${EXPECTED}.actual")
endif()
