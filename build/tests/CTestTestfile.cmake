# CMake generated Testfile for 
# Source directory: /work/main/tests
# Build directory: /work/main/build/tests
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
add_test([=[ipc_clean]=] "/work/main/build/collector/varnix-ipc-clean")
set_tests_properties([=[ipc_clean]=] PROPERTIES  FIXTURES_CLEANUP "varnix_ipc" _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;9;add_test;/work/main/tests/CMakeLists.txt;0;")
add_test([=[test_exports]=] "/work/main/build/tests/test_exports")
set_tests_properties([=[test_exports]=] PROPERTIES  FIXTURES_REQUIRED "varnix_ipc" TIMEOUT "300" _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;19;add_test;/work/main/tests/CMakeLists.txt;0;")
add_test([=[test_tran_ex]=] "/work/main/build/tests/test_tran_ex")
set_tests_properties([=[test_tran_ex]=] PROPERTIES  FIXTURES_REQUIRED "varnix_ipc" TIMEOUT "300" _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;19;add_test;/work/main/tests/CMakeLists.txt;0;")
add_test([=[c_api_check]=] "/work/main/build/tests/c_api_check")
set_tests_properties([=[c_api_check]=] PROPERTIES  _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;29;add_test;/work/main/tests/CMakeLists.txt;0;")
