# The guarded call (each call into a driver in a child, under a time limit)
# and the readiness wait made as the event monitor makes it,
# as a library of its own with no other dependency: aov-compliance links it in
# every build, the Arm64 static program included, and so can the other tools.
if(NOT TARGET aov_guarded)
  add_library(aov_guarded STATIC ${CMAKE_CURRENT_LIST_DIR}/Guarded.cpp
    ${CMAKE_CURRENT_LIST_DIR}/MonitorWait.cpp)
  target_include_directories(aov_guarded PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_compile_options(aov_guarded PRIVATE ${AOV_WARNINGS} ${AOV_NO_EXCEPTIONS})
endif()
