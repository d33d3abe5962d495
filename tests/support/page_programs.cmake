# appconfig_page_programs(PAGE): each whole C++ program that a page shows becomes a program of this
# build, as a user would build it: against the shared library, with the warnings on.
function(appconfig_page_programs page)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${page} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/pages.py)
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/pages)
  execute_process(
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/pages.py ${page} ${dir}
    OUTPUT_VARIABLE names OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  foreach(name IN LISTS names)
    add_executable(${name} ${dir}/${name}.cpp)
    target_link_libraries(${name} PRIVATE appconfig::appconfig appconfig_flags)
  endforeach()
endfunction()
