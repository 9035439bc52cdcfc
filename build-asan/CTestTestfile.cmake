# CMake generated Testfile for 
# Source directory: /work/wt-b
# Build directory: /work/wt-b/build-asan
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
subdirs("tests")
subdirs("fuzz")
