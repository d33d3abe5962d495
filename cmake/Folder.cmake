# appconfig_folder(<target> SOURCES ... HEADERS ... [INTERNAL ...] [USES ...] [USES_PRIVATELY ...])
#
# One folder, one static target. USES and USES_PRIVATELY are the folder's whole dependency list:
# tests/layout reads them and fails when a file of the folder includes anything else. HEADERS are
# installed and each must compile alone (target all_verify_interface_header_sets); INTERNAL ones
# stay in the tree.
function(appconfig_folder target)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;INTERNAL;USES;USES_PRIVATELY" ${ARGN})
  # TEMPORARY while folders are being written at the same time: files that do not exist yet are left out.
  foreach(kind SOURCES HEADERS INTERNAL)
    foreach(file IN LISTS ARG_${kind})
      if(NOT file MATCHES "\\$<" AND NOT IS_ABSOLUTE "${file}" AND NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
        message(WARNING "${target}: ${file} is missing")
        list(REMOVE_ITEM ARG_${kind} ${file})
      endif()
    endforeach()
  endforeach()
  if(NOT ARG_SOURCES)
    file(TOUCH ${CMAKE_CURRENT_BINARY_DIR}/empty.cpp)
    set(ARG_SOURCES ${CMAKE_CURRENT_BINARY_DIR}/empty.cpp)
  endif()
  add_library(${target} STATIC ${ARG_SOURCES} ${ARG_INTERNAL})
  if(ARG_HEADERS)
    target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARG_HEADERS})
  endif()
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${target} PUBLIC ${ARG_USES} PRIVATE ${ARG_USES_PRIVATELY} $<BUILD_INTERFACE:appconfig_flags>)
endfunction()
