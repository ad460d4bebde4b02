# Turns the plain comments of a public header into Doxygen's on the way into the reference, line by line, so that the
# header itself stays the manual that is read in an editor.
#
# A comment that opens a line speaks of what follows it, one behind a declaration of that, the one on the second line
# of a header of the file. Lines that are indented in a comment are tables and examples, shown as they are; elsewhere
# the names of functions and constants become links.

# Links of the main page to headers lead to their pages.
FILENAME ~ /\.md$/ { gsub(/\(\.\.\/include\/kesaudio\//, "(@ref "); print; next }

# The licence's line makes room for the @file, so that warnings name the right line.
NR == 1 { print "/** @file"; next }
NR == 2 { sub(/^\/\*/, " *"); inside = 1 }

!inside && /^ *\/\* / { sub(/\/\*/, "/**"); inside = 1 }
!inside               { sub(/\/\* /, "/**< "); print; next }

# A table takes the empty lines around it for its marks, and stands without the comment's asterisks.
/^ *\*   / && !table  { table = 1; empty = "@verbatim" }
table && !/^ *\*   /  { table = 0; sub(/^ *\*/, "@endverbatim"); sub(/verbatim\//, "verbatim */") }
table                 { sub(/^ *\*   /, "") }
!table                { gsub(/(channel_DownMix_|channel_UpMix_|Audio_Channel_|InitKes|KES_)[A-Za-z0-9_]+/, "#&") }

empty != ""           { print empty; empty = "" }
/^ *\*$/              { empty = $0; next }
                      { print }
/\*\//                { inside = 0 }
