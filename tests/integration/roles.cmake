# Role sources and fencing: the lease on one host (docs/roles.md).
hadra_e2e_test(roles_lease_test roles_lease_test.cc)

# The Pacemaker resource agent passes ocf-tester and returns a promotable clone's codes.
add_test(NAME roles_ocf_agent_test
  COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/roles_ocf_test.sh $<TARGET_FILE:hadra-sysmgrd>
          ${PROJECT_SOURCE_DIR}/dist/ocf/hadra)
set_tests_properties(roles_ocf_agent_test PROPERTIES TIMEOUT 180 SKIP_RETURN_CODE 77)
