# The operator's tool (tools/hadra) run against a live pair of daemons and services.
if(TARGET hadra)
  hadra_e2e_test(hadra_tool_test hadra_tool_test.cc)
  target_link_libraries(hadra_tool_test PRIVATE hadra_verify_core)
  target_compile_definitions(hadra_tool_test PRIVATE HADRA_TOOL_PATH="$<TARGET_FILE:hadra>")
  add_dependencies(hadra_tool_test hadra)
endif()

# The comparing core of verify on two stores side by side.
hadra_e2e_test(verify_core_test verify_core_test.cc)
target_link_libraries(verify_core_test PRIVATE hadra_verify_core)

# The history's ring reader and the comparison of two supervisors' records.
hadra_e2e_test(history_core_test history_core_test.cc)
target_link_libraries(history_core_test PRIVATE hadra_history_core)
