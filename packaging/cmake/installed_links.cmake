# Makes the links of the installed pages lead somewhere.
#
# The pages lie as they do in the tree, so the links between them and to the examples hold. A link to a
# public header or to the schema is led to where that is installed; one to what is not installed at all
# becomes its text alone. Done a second time it changes nothing, and has to be done again after a file
# that a page leads to was taken away.

# What a link looks like. A dot, a slash or capitals alone (LICENSE) tell it from C++ that has brackets and
# parentheses.
set(link_pattern "\\[([^][]+)\\]\\(([A-Za-z0-9_./-]*[./][A-Za-z0-9_./-]*|[A-Z][A-Z]+)(#[a-z0-9-]+)?\\)")

# Where the target of a page's link is, relative to the page; empty when it is not installed.
function(installed_target page target docs headers schema result)
  get_filename_component(folder ${page} DIRECTORY)
  get_filename_component(wanted ${folder}/${target} ABSOLUTE)
  file(RELATIVE_PATH in_tree ${docs} ${wanted})
  foreach(candidate ${wanted} ${headers}/${in_tree} ${schema}/${in_tree})
    if(EXISTS ${candidate})
      file(RELATIVE_PATH relative ${folder} ${candidate})
      set(${result} ${relative} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${result} "" PARENT_SCOPE)
endfunction()

# docs, headers and schema are the directories that stand for the root of the tree.
function(lead_links_in_page page docs headers schema)
  file(READ ${page} rest)
  set(before "${rest}")
  set(text "")
  while(rest MATCHES "${link_pattern}")
    set(link "${CMAKE_MATCH_0}")
    set(words "${CMAKE_MATCH_1}")
    set(target "${CMAKE_MATCH_2}")
    set(anchor "${CMAKE_MATCH_3}")
    string(FIND "${rest}" "${link}" at)
    string(LENGTH "${link}" length)
    string(SUBSTRING "${rest}" 0 ${at} skipped)
    math(EXPR after "${at} + ${length}")
    string(SUBSTRING "${rest}" ${after} -1 rest)
    installed_target(${page} ${target} ${docs} ${headers} ${schema} found)
    if(target MATCHES "/$" AND NOT found MATCHES "/$" AND NOT found STREQUAL "")
      string(APPEND found "/")
    endif()
    if(found STREQUAL "")
      string(APPEND text "${skipped}${words}")
    else()
      string(APPEND text "${skipped}[${words}](${found}${anchor})")
    endif()
  endwhile()
  string(APPEND text "${rest}")
  if(NOT text STREQUAL before)
    file(WRITE ${page} "${text}")
  endif()
endfunction()

function(lead_links docs headers schema)
  file(GLOB_RECURSE pages ${docs}/*.md)
  foreach(page IN LISTS pages)
    lead_links_in_page(${page} ${docs} ${headers} ${schema})
  endforeach()
endfunction()
