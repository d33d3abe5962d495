# appconfig_folder(<target> SOURCES ... HEADERS ... [INTERNAL ...] [USES ...] [USES_PRIVATELY ...])
#
# One folder, one static target. USES and USES_PRIVATELY are the folder's whole dependency list:
# tests/layout reads them and fails when a file of the folder includes anything else. HEADERS are
# installed and each must compile alone (target all_verify_interface_header_sets); INTERNAL ones
# stay in the tree.
function(appconfig_folder target)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;INTERNAL;USES;USES_PRIVATELY" ${ARGN})
  add_library(${target} STATIC ${ARG_SOURCES} ${ARG_INTERNAL})
  if(ARG_HEADERS)
    target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARG_HEADERS})
  endif()
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${target} PUBLIC ${ARG_USES} PRIVATE ${ARG_USES_PRIVATELY} $<BUILD_INTERFACE:appconfig_flags>)
endfunction()
