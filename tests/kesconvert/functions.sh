# What the commands of the text files here use.

# cat with other bytes at a place: lie AT BYTES
lie() { head -c $1; printf "$2"; head -c $(printf "$2" | wc -c) >/dev/null; cat; }

# Whether the file says, its lines joined by |, has an expression in it.
told() { tr '\n' '|' <says | grep -E "$1"; }

# The code of a WAV's format and, of an extensible one, its mask.
header() { od -An -tx1 -j20 -N2 $1 | tr -d '\n'; od -An -tx2 -j40 -N2 $1; }
