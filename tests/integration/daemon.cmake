# Two supervisors run by their system-manager daemons (hadra-sysmgrd) and real services.
hadra_e2e_test(daemon_e2e_test daemon_e2e_test.cc)
