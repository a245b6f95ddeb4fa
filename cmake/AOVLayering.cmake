# The tree's dependency rules that the build itself can see, checked once all
# targets are declared: a rule broken again fails the configure, naming the
# target and the path that breaks it. The rules on #include lines are
# scripts/check-layering.sh's (a ctest).

# The targets `target` reaches through its links, itself included, in
# `out_var`. Generator expressions that only wrap a target name
# ($<BUILD_INTERFACE:x>, $<LINK_ONLY:x>) count as that target.
function(aov_link_closure target out_var)
  set(seen)
  set(queue ${target})
  while(queue)
    list(POP_FRONT queue item)
    if(item MATCHES "^\\$<(BUILD_INTERFACE|LINK_ONLY):(.+)>$")
      set(item ${CMAKE_MATCH_2})
    endif()
    if(NOT TARGET ${item} OR item IN_LIST seen)
      continue()
    endif()
    list(APPEND seen ${item})
    get_target_property(aliased ${item} ALIASED_TARGET)
    if(aliased)
      list(APPEND queue ${aliased})
      continue()
    endif()
    get_target_property(type ${item} TYPE)
    get_target_property(links ${item} INTERFACE_LINK_LIBRARIES)
    if(links)
      list(APPEND queue ${links})
    endif()
    if(NOT type STREQUAL "INTERFACE_LIBRARY")
      get_target_property(links ${item} LINK_LIBRARIES)
      if(links)
        list(APPEND queue ${links})
      endif()
    endif()
  endwhile()
  set(${out_var} ${seen} PARENT_SCOPE)
endfunction()

# The folder a target belongs to: the one that declares it, or for a target
# declared by a file that several folders include (tools/common/Core.cmake),
# the folder of that file, which it records as AOV_FOLDER.
function(aov_target_folder target out_var)
  get_target_property(dir ${target} AOV_FOLDER)
  if(NOT dir)
    get_target_property(dir ${target} SOURCE_DIR)
  endif()
  set(${out_var} ${dir} PARENT_SCOPE)
endfunction()

# Fails when `target` reaches a target declared under one of the FOLDERS
# (relative to the source tree), or carries an include directory there.
function(aov_require_apart target)
  cmake_parse_arguments(arg "" "WHY" "FOLDERS" ${ARGN})
  if(NOT TARGET ${target})
    return()
  endif()
  aov_link_closure(${target} reached)
  foreach(item IN LISTS reached)
    get_target_property(imported ${item} IMPORTED)
    if(imported)
      continue()
    endif()
    aov_target_folder(${item} dir)
    get_target_property(includes ${item} INCLUDE_DIRECTORIES)
    get_target_property(interface_includes ${item} INTERFACE_INCLUDE_DIRECTORIES)
    foreach(folder IN LISTS arg_FOLDERS)
      set(forbidden ${PROJECT_SOURCE_DIR}/${folder})
      string(FIND "${dir}/" "${forbidden}/" at)
      if(at EQUAL 0)
        message(FATAL_ERROR "layering: ${target} reaches ${item}, declared in ${folder} (${arg_WHY})")
      endif()
      foreach(include IN LISTS includes interface_includes)
        if(include MATCHES "^\\$<BUILD_INTERFACE:(.+)>$")
          set(include ${CMAKE_MATCH_1})
        endif()
        string(FIND "${include}/" "${forbidden}/" at)
        if(at EQUAL 0)
          message(FATAL_ERROR
            "layering: ${target} reaches ${item}, which includes from ${include} (${arg_WHY})")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()

set(aov_above_platform hw sim tools testing)
foreach(target aov_platform_headers aov_host_platform)
  aov_require_apart(${target} FOLDERS ${aov_above_platform}
    WHY "the platform is below the library and everything built on it")
endforeach()
foreach(target aov_base)
  aov_require_apart(${target} FOLDERS platform ${aov_above_platform}
    WHY "base/ is under everything")
endforeach()
# tools/common: base/ and the kernel-interface header (hw/aov/inc/uapi) only.
foreach(target aov_tool_core aov_tool_cli aov_tool_common)
  aov_require_apart(${target}
    FOLDERS sim platform testing hw/aov/inc/sys hw/aov/src tools/aov-sim tools/aov-rec
            tools/aov-kdev tools/aov-compliance
    WHY "tools/common stands on base/ and the kernel-interface header only")
endforeach()
