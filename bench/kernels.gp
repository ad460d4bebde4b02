# Draws the speed of the channel kernels against memcpy, from what kernels_bench --picture wrote:
#
#   gnuplot -e "data='FILE'; picture='FILE.png'" bench/kernels.gp

# For each format: kernel, fastest peer, faster scalar loop.
array formats[3] = ["16-bit", "packed 24-bit", "32-bit"]
array colours[3] = ["#1f77b4", "#ff7f0e", "#2ca02c"]
row(line, format) = 4 * line + format

set terminal pngcairo size 1200,1250 font "DejaVu Sans,11"
set output picture
set title "Channel kernels, 1024 frames in cache: speed against memcpy of the same bytes"
set xlabel "of memcpy's speed"
set key outside bottom center horizontal
set border 1 lc rgb "#999999"
set tics nomirror
set ytics scale 0
set grid xtics lc rgb "#dddddd"
set xrange [0:1.05<*]
set yrange [*:*] reverse
set offsets 0, 0, 0.3, 0.3
set style fill solid
set arrow from 1, graph 0 to 1, graph 1 nohead lc rgb "#555555" dt 2

plot for [f=1:3] data using (0):(row($0, f)):(0):3*f-1:(row($0, f) - 0.45):(row($0, f) + 0.45) \
    with boxxyerror lc rgb colours[f] title formats[f], \
  for [f=1:3] data using 3*f:(row($0, f)) with points pt 13 ps 1.3 lc rgb "#d62728" \
    title (f == 1 ? "fastest of libswresample and SDL2" : ""), \
  for [f=1:3] data using 3*f+1:(row($0, f)) with points pt 7 ps 0.9 lc rgb "#000000" \
    title (f == 1 ? "faster scalar loop, -O3 -march=native" : ""), \
  data using (0):(row($0, 2)):yticlabels(1) with dots notitle
