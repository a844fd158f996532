# What ./demo builds besides the product, and end-to-end tests too. Needs no test framework.
include_guard(GLOBAL)

# Without the options of all others: most sanitizers refuse to run set-group-id. TestCaller is never packaged: it is
# installed beside the app, with the app's group, for a test alone.
add_executable(TestCaller ${CMAKE_CURRENT_LIST_DIR}/StartReport.cpp ${CMAKE_CURRENT_LIST_DIR}/TestApp.cpp)
# One source has a weak main(), which the other replaces.
set_target_properties(TestCaller PROPERTIES UNITY_BUILD OFF)
target_include_directories(TestCaller PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(TestCaller PRIVATE PkgConfig::systemd)
target_compile_definitions(TestCaller PRIVATE _GNU_SOURCE HALVO_APP_BUNDLE_ID="${HALVO_APP_BUNDLE_ID}")

add_library(InjectedLibrary MODULE ${CMAKE_CURRENT_LIST_DIR}/InjectedLibrary.cpp)
set_target_properties(InjectedLibrary PROPERTIES PREFIX "")

add_custom_target(HalvoDemo DEPENDS HalvoHelper halvoctl SampleApp TestCaller InjectedLibrary)
