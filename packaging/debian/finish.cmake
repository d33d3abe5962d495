# Before CPack packs what it has staged: what Debian wants in each package beside the files themselves,
# and one time for all files, so that the same sources give the same bytes.
cmake_minimum_required(VERSION 3.25)
find_program(GZIP gzip REQUIRED)
find_program(TOUCH touch REQUIRED)

include(${CPACK_APPCONFIG_SOURCE_DIR}/packaging/cmake/installed_links.cmake)
set(debian ${CPACK_APPCONFIG_SOURCE_DIR}/packaging/debian)
set(epoch $ENV{SOURCE_DATE_EPOCH})
execute_process(COMMAND date -u -R -d @${epoch} OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)

function(write_overrides package root)
  set(file ${root}/usr/share/lintian/overrides/${package})
  configure_file(${debian}/overrides/all ${file} @ONLY)
  if(EXISTS ${debian}/overrides/${package})
    file(READ ${debian}/overrides/${package} own)
    file(APPEND ${file} "${own}")
  endif()
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(doc ${root}/usr/share/doc/${package})
  configure_file(${debian}/copyright ${doc}/copyright COPYONLY)
  configure_file(${debian}/changelog.in ${doc}/changelog.Debian @ONLY)
  configure_file(${CPACK_APPCONFIG_SOURCE_DIR}/CHANGELOG.md ${doc}/changelog COPYONLY)
  # Debian has both under names of its own.
  file(REMOVE ${doc}/CHANGELOG.md ${doc}/LICENSE)
  write_overrides(${package} ${root})
  file(GLOB_RECURSE to_compress ${root}/usr/share/man/* ${doc}/changelog*)
  execute_process(COMMAND ${GZIP} -9n ${to_compress} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# Pages lead to headers and to the schema, which another package brings to where they point.
set(with_pages ${CPACK_TEMPORARY_DIRECTORY}/documentation/usr)
set(with_headers ${CPACK_TEMPORARY_DIRECTORY}/development/usr)
set(places ${with_pages}/include/appconfig-1 ${with_pages}/share/appconfig)
file(MAKE_DIRECTORY ${with_pages}/include)
foreach(place IN LISTS places)
  string(REPLACE ${with_pages} ${with_headers} there ${place})
  file(CREATE_LINK ${there} ${place} SYMBOLIC)
endforeach()
lead_links(${with_pages}/share/doc/${CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME} ${places})
file(REMOVE ${places})
file(REMOVE_RECURSE ${with_pages}/include)

file(GLOB_RECURSE staged LIST_DIRECTORIES true ${CPACK_TEMPORARY_DIRECTORY}/*)
execute_process(COMMAND ${TOUCH} --no-dereference --date=@${epoch} ${CPACK_TEMPORARY_DIRECTORY} ${staged}
                COMMAND_ERROR_IS_FATAL ANY)
