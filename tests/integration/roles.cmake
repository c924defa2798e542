# Role sources and fencing (docs/roles.md): the lease on one host, keepalived on two hosts in
# network namespaces, and the Pacemaker resource agent.
hadra_e2e_test(roles_lease_test roles_lease_test.cc)
hadra_e2e_test(roles_keepalived_test roles_keepalived_test.cc)
target_compile_definitions(roles_keepalived_test PRIVATE HADRA_SOURCE_DIR="${PROJECT_SOURCE_DIR}")

# The Pacemaker resource agent passes ocf-tester and returns a promotable clone's codes.
add_test(NAME roles_ocf_agent_test
  COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/roles_ocf_test.sh $<TARGET_FILE:hadra-sysmgrd>
          ${PROJECT_SOURCE_DIR}/dist/ocf/hadra)
set_tests_properties(roles_ocf_agent_test PROPERTIES TIMEOUT 180 SKIP_RETURN_CODE 77)
