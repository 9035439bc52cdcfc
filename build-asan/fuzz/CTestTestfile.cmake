# CMake generated Testfile for 
# Source directory: /work/wt-b/fuzz
# Build directory: /work/wt-b/build-asan/fuzz
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
