# What ./demo builds besides the product, to be included from the top CMakeLists.txt. Needs no test framework.
if(NOT TARGET TestCaller)
    include(${CMAKE_CURRENT_LIST_DIR}/TestCaller.cmake)
endif()

add_library(InjectedLibrary MODULE ${CMAKE_CURRENT_LIST_DIR}/InjectedLibrary.cpp)
target_link_libraries(InjectedLibrary PRIVATE HalvoOptions)
set_target_properties(InjectedLibrary PROPERTIES PREFIX "")

add_custom_target(HalvoDemo DEPENDS HalvoHelper halvoctl SampleApp TestCaller InjectedLibrary)
