# What ./demo builds besides the product, and end-to-end tests too. Needs no test framework.
include_guard(GLOBAL)

# Never packaged: it is installed beside the app, with the app's group, for a test alone.
add_executable(TestCaller ${CMAKE_CURRENT_LIST_DIR}/TestCaller.cpp)
target_link_libraries(TestCaller PRIVATE HalvoClient HalvoSetGroupID)

# Without the options of all others: a sanitizer would not let it in.
add_library(InjectedLibrary MODULE ${CMAKE_CURRENT_LIST_DIR}/InjectedLibrary.cpp)
set_target_properties(InjectedLibrary PROPERTIES PREFIX "")

add_custom_target(HalvoDemo DEPENDS HalvoHelper SampleApp TestCaller InjectedLibrary)
