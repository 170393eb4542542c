# Doxygen input filter for the public headers. Their comments are ordinary //
# comments in the style of the rest of the code, which Doxygen would ignore;
# this turns them into documentation, keeping every line where it is:
#   - the comment block at the top of a header documents the file;
#   - a comment on lines of its own documents the declaration below it, and
#     the overloads of the same name that directly follow it;
#   - a comment after a declaration on the same line documents that
#     declaration; a defaulted special member is documented as such;
#   - "// ----" section rules stay plain comments;
#   - in documentation "%", "<" and ">" are literal, and an indented comment
#     line (a table, a format, an example) starts a line of its own.

# Documentation text of the comment `c` (the text after "//").
function text(c) {
  sub(/^ /, "", c)
  gsub(/%/, "\\%", c)
  gsub(/</, "\\<", c)
  gsub(/>/, "\\>", c)
  if (c ~ /^  /) c = "\\n" c
  return c
}

# Name of the function declared on `line`, "" when the line declares none.
function declared_name(line) {
  if (line !~ /\(/ || line ~ /^[ \t]*(return|[)}])/) return ""
  sub(/\(.*/, "", line)
  sub(/[ \t]+$/, "", line)
  sub(/.*[ \t*&]/, "", line)
  return line
}

BEGIN { top = 1 }

top && /^\/\// { print "/// " text(substr($0, 3)); next }
# The blank line after the top block carries the \file command, which makes
# the block the file's documentation.
top { top = 0; if ($0 == "") { print "/// \\file"; next } }

/^[ \t]*\/\/ ----/ { block = ""; name = ""; print; next }
/^[ \t]*\/\// {
  indent = $0
  sub(/\/\/.*/, "", indent)
  comment = substr($0, length(indent) + 3)
  block = block " " text(comment)
  print indent "/// " text(comment)
  next
}
/^[ \t]*$/ || /^[ \t]*[#}]/ { block = ""; name = ""; print; next }
{
  line = $0
  trailing = ""
  if (match(line, /[ \t]\/\/ /)) {
    trailing = "  ///< " text(substr(line, RSTART + 4))
    line = substr(line, 1, RSTART - 1)
    sub(/[ \t]+$/, "", line)
  } else if (line ~ /= default;$/) {
    trailing = "  ///< Defaulted."
  }
  this_name = declared_name(line)
  if (block != "") {
    # The declaration documented by the comment above.
    doc = block
    name = this_name
    block = ""
  } else if (this_name != "" && this_name == name && line !~ /= default;$/) {
    # An overload directly below: it shares the comment.
    indent = line
    sub(/[^ \t].*/, "", indent)
    gsub(/\*\//, "* /", doc)
    line = indent "/**" doc " */ " substr(line, length(indent) + 1)
  } else if (this_name != "") {
    name = ""
  }
  print line trailing
}
