#!/bin/sh
# Feeds kesconvert files that zzuf has damaged: mutate_files.sh KESCONVERT FILES [FIRST]
# File number N is the same in every run. Each run must end in time: with success and an output that can be read, or
# with one line and the old output as it was; never by a signal. No other file may be left.
set -u
kesconvert=$(realpath "$1") files=$2 first=${3:-1}
seeds=$(cd "$(dirname "$0")/corpus/kesconvert" && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
trap 'exit 1' INT TERM
cd "$folder" || exit 1
exec 3>log

# Sets drawn to a pseudo-random number below the argument.
draw() { state=$(((state * 1103515245 + 12345) % 2147483648)) && drawn=$((state / 65536 % $1)); }

old='This was here before.'
well=0 refused=0 wrong=0 n=$first
while [ $n -lt $((first + files)) ]; do
  state=$n
  set -- "$seeds"/*
  draw $# && shift "$drawn" && seed=$1
  draw 7 && case $drawn in
    0) bytes=0-7 ;;
    1 | 2) bytes=0-59 ;;
    3 | 4) bytes=0-199 ;;
    *) bytes=0- ;;
  esac
  draw 9 && case $drawn in
    0) draw "$(wc -c <"$seed")" && cut="head -c $drawn" ;;
    1) cut="cat - $seed" ;;
    *) cut=cat ;;
  esac
  draw 11 && case $drawn in
    0) options='--channels 2' ;;
    1) options='--channels 1 --format s16' ;;
    2) options='--channels 8 --upmix zero' ;;
    3) options='--rate 44100' ;;
    4) options='--rate 8000 --block 7' ;;
    5) options='--channels 2 --limit' ;;
    6) options='--channels 1 --rate 96000 --limit' ;;
    7) options='--layout none --channels 2 --format s24' ;;
    8) options='--format s32 --block 1' ;;
    *) options= ;;
  esac
  draw 12 && case $drawn in
    0) out=out.flac ;;
    1) out=out.caf ;;
    2) out=out.aiff ;;
    3) out=out.au ;;
    *) out=out.wav ;;
  esac
  case $seed in *.raw) options="$options --raw 48000:2:s16" in=in.raw ;; *) in=in ;; esac

  # zzuf flips bits at a rate within -r, drawn from the seed.
  zzuf -q -s "$n" -r 0.0005:0.03 -b "$bytes" <"$seed" | $cut >$in
  echo "$old" >$out
  timeout 10 "$kesconvert" $in $out $options >says 2>errors
  code=$?
  found=
  if [ $code = 0 ]; then
    well=$((well + 1))
    [ ! -s errors ] || found='says something on success'
    timeout 10 "$kesconvert" $out - >/dev/null 2>errors || found='makes an output that cannot be read'
  else
    refused=$((refused + 1))
    [ "$(wc -l <errors)" = 1 ] && grep -q '^kesconvert: .' errors || found='does not say in one line what is wrong'
    [ "$(cat $out)" = "$old" ] || found='loses the old output'
    [ $code -lt 3 ] || found="exits with $code"
    sed 's/[0-9][0-9]* of [0-9]* frames/N of N frames/; s/[0-9][0-9]* \(Hz\|channels\)/N \1/g' errors >&3
  fi
  rm -f $in $out says errors
  [ "$(ls -A)" = log ] || { found="leaves $(ls -A)" && find . -type f ! -name log -delete; }
  if [ -n "$found" ]; then
    wrong=$((wrong + 1))
    echo "file $n ($(basename "$seed"), bits of bytes $bytes, $cut): kesconvert $in $out $options $found"
  fi
  n=$((n + 1))
done
echo "$files damaged files: $well converted, $refused refused, $wrong gone wrong"
[ -z "${KESAUDIO_MESSAGES-}" ] || sort log | uniq -c | sort -rn
[ $wrong = 0 ]
