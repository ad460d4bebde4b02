#!/bin/sh
# Counts the instructions of a frame on 64-bit Arm, on any machine: builds the kernels, and the same mixes as plain
# loops, for aarch64 by g++ and by clang, and runs them under qemu-aarch64, which logs every instruction. Takes one turn
# of each vector loop from that log for llvm-mca to time on two processors. Prints Markdown; keeps the builds and the
# loops in build/arm/.
#
#   bench/arm.sh    from the root of the project
set -eu

folder=build/arm
kernels='channel/fold.cpp channel/mono_average.cpp channel/stereo.cpp channel/strip.cpp channel/upmix.cpp'
plain=bench/plain_kernels.cpp
flags="-std=c++20 -O3 -fno-exceptions -fno-rtti -ffp-contract=off -static -I. -Iinclude"
# A mid-size core that starts instructions in order, and a large one that does not. The larger ones that llvm 14 knows
# by name (Cortex-A76, X1, Neoverse N1) have the model of the Cortex-A57.
processors='cortex-a55 cortex-a76'

for tool in aarch64-linux-gnu-g++ clang++ qemu-aarch64 llvm-objdump llvm-mca; do
  command -v $tool >/dev/null || {
    echo "arm.sh: $tool is missing: please install g++-aarch64-linux-gnu clang qemu-user llvm" >&2
    exit 1
  }
done
rm -rf $folder
mkdir -p $folder

# name, sources, compiler and flags: a line "cell|aim|instructions a frame|addresses of one turn of the loop" for each cell, in
# $folder/name.
count() {
  name=$1 sources=$2 && shift 2
  "$@" $flags $sources bench/arm_count.cpp -o $folder/$name.elf
  qemu-aarch64 -singlestep -d nochain,exec $folder/$name.elf 2>&1 | awk '
    /^Trace/ { ++count; if (marks == 3) { split($0, part, "/"); ran[count] = part[2] } next }
    $1 == "frames" { frames = $2 }
    $1 == "cell" { sub(/^cell /, ""); split($0, cell, " [|] "); marks = 0 }
    $1 == "#" && ++marks == 2 { short = count }
    $1 == "#" && marks == 4 {
      middle = int(count / 2)
      turn = ran[middle]
      for (i = middle + 1; i < count && ran[i] != ran[middle]; ++i) turn = turn " " ran[i]
      printf "%s|%s|%.9g|%s\n", cell[1], cell[2], (count - short) / frames, turn
    }
    { count = 0 }' >$folder/$name
  grep -q '^known loop[^|]*|[^|]*|3|' $folder/$name || {
    echo "arm.sh: a loop of three instructions is counted otherwise: see $folder/$name" >&2
    exit 1
  }
}

# name: what llvm-mca says of each cell's loop, a line of cycles a frame for each cell, in $folder/name.PROCESSOR.
analyse() {
  llvm-objdump -d --no-show-raw-insn $folder/$1.elf | awk -F'|' -v start=$folder/$1.loop. '
    FNR == NR { if (match($0, /^ *[0-9a-f]+: /)) {
        address = $0; sub(/^ */, "", address); sub(/:.*/, "", address)
        text = $0; sub(/^[^:]*:[ \t]*/, "", text); sub(/ *<.*/, "", text); code[address] = text }
      next }
    { length_ = split($4, turn, " ")
      for (i = 1; i <= length_; ++i) { sub(/^0+/, "", turn[i]); print code[turn[i]] >(start FNR) }
      close(start FNR) }' - $folder/$1
  for processor in $processors; do
    awk -F'|' '{ print $3, split($4, turn, " ") }' $folder/$1 | {
      line=0
      while read -r instructions turn; do
        line=$((line + 1))
        llvm-mca -mtriple=aarch64 -mcpu=$processor -iterations=100 $folder/$1.loop.$line 2>$folder/mca.log |
          awk -v instructions="$instructions" -v turn="$turn" '
            /^Total Cycles/ { cycles = $3 / 100 * instructions / turn }
            END { if (cycles) printf "%.2f\n", cycles; else print "-" }'
      done
    } >$folder/$1.$processor
  done
}

count gcc "$kernels" aarch64-linux-gnu-g++
count clang "$kernels" clang++ --target=aarch64-linux-gnu
count gcc-plain $plain aarch64-linux-gnu-g++
count clang-plain $plain clang++ --target=aarch64-linux-gnu
analyse gcc
analyse clang

echo '| cell | vectors, g++ | vectors, clang | plain loop, g++ | plain loop, clang | times fewer, g++ | times fewer, clang | aim |'
echo '|---|---|---|---|---|---|---|---|'
paste -d'|' $folder/gcc $folder/clang $folder/gcc-plain $folder/clang-plain | awk -F'|' '
  function times(vectors) { return sprintf(plain / vectors < $2 ? "**%.1f**" : "%.1f", plain / vectors) }
  FNR > 1 {
    plain = $11 < $15 ? $11 : $15
    printf "| %s | %.1f | %.1f | %.1f | %.1f | %s | %s | %d |\n", $1, $3, $7, $11, $15, times($3), times($7), $2
  }'
echo
echo '| cell | Cortex-A55, g++ | Cortex-A55, clang | Cortex-A76, g++ | Cortex-A76, clang |'
echo '|---|---|---|---|---|'
cut -d'|' -f1 $folder/gcc | paste -d'|' - $folder/gcc.cortex-a55 $folder/clang.cortex-a55 $folder/gcc.cortex-a76 \
  $folder/clang.cortex-a76 | awk -F'|' 'FNR > 1 { printf "| %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5 }'
