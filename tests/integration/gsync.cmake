# The second end-to-end test: a standby brought up by gsync, then switched over.
hadra_e2e_test(gsync_switchover_test gsync_switchover_test.cc)
