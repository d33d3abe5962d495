# appconfig_programs(OUT TARGET...): sets OUT to the directory in which tests find these programs, built
# into one directory, under their names. Natively that is where they are built. Of another architecture's
# programs it is a directory of scripts that start them by the emulator, so that tests in C++, Python
# and shell all start a program in the same way, and none has to know how this build's are run. A script
# turns into its program: the number of the process is the program's.
function(appconfig_programs out)
  list(GET ARGN 0 first)
  get_target_property(built ${first} RUNTIME_OUTPUT_DIRECTORY)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${out} ${built} PARENT_SCOPE)
    return()
  endif()
  get_filename_component(scripts ${built}/../emulated/bin ABSOLUTE)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  get_property(has_script GLOBAL PROPERTY APPCONFIG_PROGRAMS_WITH_SCRIPT)
  list(REMOVE_ITEM ARGN ${has_script})
  set_property(GLOBAL APPEND PROPERTY APPCONFIG_PROGRAMS_WITH_SCRIPT ${ARGN})
  foreach(program IN LISTS ARGN)
    file(GENERATE OUTPUT ${scripts}/${program}
      CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${program}> \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  endforeach()
  set(${out} ${scripts} PARENT_SCOPE)
endfunction()
