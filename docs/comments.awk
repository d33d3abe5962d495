# Doxygen's input filter: the headers' plain comments as documentation. Kept out of the headers, where
# `//` reads better than tags.
#
#   the first block of a file     describes the file, and its first class that has no comment of its own
#   a block on top of something   describes it
#   "// --- Reads ---"            is a heading over the members that follow
#   a block and a blank line      is a remark between things, and is left alone
#
# Indented lines and the aligned paragraphs of a first block keep their form. What is a tag to Doxygen
# is text to us, so it is escaped: a comment can name <Type>, \n or @x.

function escaped(text) {
  gsub(/[\\@<>&#%]/, "\\\\&", text)
  gsub(/\\\\"/, "\\\"", text)  # a quotation mark that is escaped already
  gsub(/::/, "\\::", text)
  gsub(/\*\//, "* /", text)  # it would end the comment
  return text
}

# Lines from..to of the block, as they stand.
function verbatim(from, to,    i) {
  print "\\verbatim"
  for (i = from; i <= to; i++) { gsub(/\*\//, "* /", block[i]); print block[i] }
  print "\\endverbatim"
}

function describe(    i, start) {
  print "/**"
  for (i = 1; i <= size; i++) {
    if (block[i] !~ /^   /) { print escaped(block[i]); continue }
    start = i
    while (i < size && block[i + 1] ~ /^(   |$)/) i++
    verbatim(start, i)
  }
  print "*/"
}

# The opening paragraph is text, the rest keeps its columns.
function describeWhole(tag,    i) {
  print "/** " tag
  for (i = 1; i <= size && block[i] != ""; i++) print escaped(block[i])
  print ""
  if (i <= size) verbatim(i + 1, size)
  print "*/"
}

function leave(    i) { for (i = 1; i <= size; i++) print "//" block[i] }

function forget() { delete block; size = 0 }

function endGroup() { if (grouped) print "///@}"; grouped = 0 }

/^ *\/\/ clang-format (on|off)$/ { next }

/^ *\/\/ --- .* ---$/ {
  endGroup()
  sub(/^ *\/\/ --- /, ""); sub(/ ---$/, "")
  print "/// \\name " escaped($0)
  print "///@{"
  grouped = 1
  next
}

/^ *\/\// && !/^ *\/\/ NOLINT/ { sub(/^ *\/\//, ""); block[++size] = $0; next }

/^#pragma once/ && !opened {
  opened = 1
  describeWhole("\\file")
  for (i = 1; i <= size; i++) first[i] = block[i]
  firstSize = size
  forget()
}

/^(class|struct) .*\{$/ && firstSize {
  if (!size) { for (i = 1; i <= firstSize; i++) block[i] = first[i]; size = firstSize; describeWhole(""); forget() }
  firstSize = 0
}

/^ (private|protected):|^};/ { endGroup() }

{
  if (size && $0 == "") leave()
  else if (size) describe()
  forget()
  print
}
