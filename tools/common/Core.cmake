# The part of tools/common that needs nothing but the C++ library and the
# header-only CLI11, so that every build has it, the device's static programs
# included: the guarded call (each call into a driver in a child, under a time
# limit), the readiness wait made as the event monitor makes it, errno names,
# number text, excerpts for one-line messages, the command line's outcome and
# exit codes (aov_tool_core), and running a CLI11 parser (aov_tool_cli). Included by every CMakeLists.txt that links them.
if(NOT TARGET aov_tool_core)
  add_library(aov_tool_core STATIC
    ${CMAKE_CURRENT_LIST_DIR}/CommandLine.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ErrnoName.cpp
    ${CMAKE_CURRENT_LIST_DIR}/Excerpt.cpp
    ${CMAKE_CURRENT_LIST_DIR}/Guarded.cpp
    ${CMAKE_CURRENT_LIST_DIR}/MonitorWait.cpp
    ${CMAKE_CURRENT_LIST_DIR}/NumberText.cpp
  )
  target_include_directories(aov_tool_core PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_compile_options(aov_tool_core PRIVATE ${AOV_WARNINGS} ${AOV_NO_EXCEPTIONS})

  # CLI11 (Debian package libcli11-dev). A cross build does not look into the
  # host's /usr/include: the header-only parser is taken from there through a
  # directory of its own, so that no other host header comes with it.
  add_library(aov_cli11 INTERFACE)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(CLI11 REQUIRED)
    target_link_libraries(aov_cli11 INTERFACE CLI11::CLI11)
  else()
    find_path(AOV_CLI11_DIR CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    set(aov_cli11_include ${CMAKE_BINARY_DIR}/cli11)
    file(MAKE_DIRECTORY ${aov_cli11_include})
    file(CREATE_LINK ${AOV_CLI11_DIR}/CLI ${aov_cli11_include}/CLI SYMBOLIC)
    target_include_directories(aov_cli11 SYSTEM INTERFACE ${aov_cli11_include})
  endif()

  add_library(aov_tool_cli STATIC ${CMAKE_CURRENT_LIST_DIR}/CliParse.cpp)
  target_link_libraries(aov_tool_cli PUBLIC aov_tool_core aov_cli11)
  # CLI11 reports through exceptions; they are caught inside this file.
  target_compile_options(aov_tool_cli PRIVATE ${AOV_WARNINGS} -fexceptions)
  # Where these targets belong, whichever folder included this file first.
  set_target_properties(aov_tool_core aov_cli11 aov_tool_cli PROPERTIES
    AOV_FOLDER ${CMAKE_CURRENT_LIST_DIR})
endif()
