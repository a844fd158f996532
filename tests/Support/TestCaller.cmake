include_guard(GLOBAL)

# The caller for tests and the demo, to be included from a CMakeLists.txt. Never packaged: whoever
# installs it beside the app, with the app's group, does so for a test.
add_executable(TestCaller ${CMAKE_CURRENT_LIST_DIR}/TestCaller.cpp)
target_link_libraries(TestCaller PRIVATE HalvoClient HalvoSetGroupID)
