# Tests that wait out the daemon's or the card's own long periods (the
# monitor's 30 s time-out, ten registration attempts 3 s apart, the start
# time-out, the heartbeat period), with their seconds on this project's
# machines. ctest starts the costlier tests first when it runs them in
# parallel, so that the suite lasts about as long as the longest of them
# rather than one of them started last; it learns the costs itself after a
# run, but a fresh build has none. A name that no longer exists is ignored.
set_tests_properties(AppmonClientTest.AfterTenFailedRegistrationsTheClientStopsTryingButKeepsBeating PROPERTIES COST 41)
set_tests_properties(LifecycleTest.AKilledDaemonIsReportedByTheMonitorAndItsLeftoversGoAtRestart PROPERTIES COST 34)
set_tests_properties(AppmonClientTest.FailedHeartbeatKeepsTheRegistration PROPERTIES COST 31)
set_tests_properties(SessionTest.AStartNotReportedInTimeIsAnsweredOnceWithWhatIsMissing PROPERTIES COST 31)
set_tests_properties(PackageTest.AStartWaitsForTheInstalledCheckCode PROPERTIES COST 27)
set_tests_properties(AppmonClientTest.ZebPlatformSkipsTheMonitorEntirely PROPERTIES COST 11)
set_tests_properties(AppmonClientTest.RegistersBeatsAndDeregistersWithTheMonitor PROPERTIES COST 11)
set_tests_properties(AppmonClientTest.UnreachableMonitorLeavesTheClientSleeping PROPERTIES COST 10)
set_tests_properties(AppmonClientTest.FailedDeregistrationLeavesTheConnectionOpen PROPERTIES COST 10)
