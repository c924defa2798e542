# The sync stream when the standby is absent, stopped or slow: the active never waits, the
# standby is marked out of sync and brought back.
hadra_e2e_test(stream_e2e_test stream_e2e_test.cc)
