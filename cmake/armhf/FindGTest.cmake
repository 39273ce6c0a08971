# Debian has GoogleTest as a library for the build machine only, but its sources for any target.
if(NOT TARGET GTest::gtest_main)
  set(source /usr/src/googletest/googletest)
  add_library(armhf_gtest_main STATIC EXCLUDE_FROM_ALL ${source}/src/gtest-all.cc ${source}/src/gtest_main.cc)
  target_include_directories(armhf_gtest_main SYSTEM PUBLIC ${source}/include PRIVATE ${source})
  target_link_libraries(armhf_gtest_main PUBLIC Threads::Threads)
  add_library(GTest::gtest_main ALIAS armhf_gtest_main)
endif()
set(GTest_FOUND TRUE)
