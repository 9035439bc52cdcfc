# CMake generated Testfile for 
# Source directory: /work/wt-b/tests
# Build directory: /work/wt-b/build-asan/tests
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
include("/work/wt-b/build-asan/tests/tarnwell_tests[1]_include.cmake")
