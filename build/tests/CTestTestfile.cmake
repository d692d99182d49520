# CMake generated Testfile for 
# Source directory: /work/main/tests
# Build directory: /work/main/build/tests
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
add_test([=[ipc_clean]=] "/work/main/build/collector/varnix-ipc-clean")
set_tests_properties([=[ipc_clean]=] PROPERTIES  FIXTURES_CLEANUP "varnix_ipc" _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;9;add_test;/work/main/tests/CMakeLists.txt;0;")
