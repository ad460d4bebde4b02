# Functions for the commands in the text files.

# lie AT BYTES: cat, with other bytes at an offset
lie() { head -c $1; printf "$2"; head -c $(printf "$2" | wc -c) >/dev/null; cat; }

# told EXPRESSION: looks for it in the file says, its lines joined by |
told() { tr '\n' '|' <says | grep -E "$1"; }

# header WAV: prints the format code and, of an extensible header, the mask
header() { od -An -tx1 -j20 -N2 $1 | tr -d '\n'; od -An -tx2 -j40 -N2 $1; }

# written EXTENSION BITS: f.wav comes back unchanged from the container by ffmpeg, sox (which lacks RF64) and kesconvert
written() {
  $K f.wav w.$1 --format s$2 && $K w.$1 back.wav --format s16 && cmp back.wav f.wav || exit 1
  ffmpeg -v error -y -i w.$1 -f s16le back.bin && cmp back.bin f.bin || exit 1
  [ $1 = rf64 ] || { sox -D w.$1 -t raw -e signed -b 16 -L back.bin && cmp back.bin f.bin; } || exit 1
}

# read_exactly EXTENSION CODEC: kesconvert decodes f.wav as ffmpeg encodes it to the samples that ffmpeg decodes
read_exactly() {
  ffmpeg -v error -y -i f.wav -c:a $2 in.$1 && ffmpeg -v error -y -i in.$1 -f s16le r.bin &&
  $K in.$1 - --raw 48000:2:s16 --format s16 | cmp - r.bin
}

# read_closely EXTENSION CODEC: the same for a lossy codec, within 1 % of full scale; the noise clips without --limit
read_closely() {
  ffmpeg -v error -y -i f.wav -c:a $2 in.$1 && $K in.$1 o.wav >says && told 'read as 8.24.*[0-9] samples clipped.*--limit' &&
  $K in.$1 limited.wav --limit >says && told 'dB over full scale limited' || exit 1
  if [ $1 = ogg ]; then sox in.$1 r.wav; else ffmpeg -v error -y -i in.$1 r.wav; fi &&
  sox -m -v 1 o.wav -v -1 r.wav -n stat 2>&1 | awk '/^M.*imum amplitude/ && ($3 > 0.01 || $3 < -0.01) { exit 1 }'
}
