# The comparison tests run the krxcompare tool.
if(TARGET test_compare AND TARGET krxcompare)
  add_dependencies(test_compare krxcompare)
endif()
