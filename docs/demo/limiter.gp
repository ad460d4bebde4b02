# Draws out/limiter.png: the mix of a loud 5.1 recording before and behind the limiter, and the gain between them.
# Run from the project's root, behind the conversions of ./kes demo.

rate = 44100.
headroom = 10.   # the mix before the limiter is in out/headroom.wav, 20 dB down
frames = "< sox -M out/headroom.wav out/limited.wav -t f64 - 2>/dev/null"  # left, right before; left, right behind
layout = "%4float64"

set terminal pngcairo size 1800,1000 font "DejaVu Sans,11"
set output "out/limiter.png"
set multiplot
unset key
set border 3 lc rgb "#999999"
set tics nomirror
set grid lc rgb "#dddddd"

louder(left, right) = abs(left) > abs(right) ? left : right

# Where the mix is at its highest, for a closer look.
stats frames binary format=layout using (louder(column(1), column(2)) * headroom) nooutput name "mix"
highest = mix_max > -mix_min ? mix_index_max : mix_index_min
from = highest / rate - 0.006
to = highest / rate + 0.014

panel(row, column) = sprintf("set lmargin at screen %f; set rmargin at screen %f; set tmargin at screen %f; set bmargin at screen %f", 0.05 + 0.49 * column, 0.48 + 0.49 * column, 0.95 - 0.32 * row, 0.72 - 0.32 * row)
gain(before, behind) = abs(before * headroom) < 0.05 ? NaN : 20 * log10(abs(behind / before / headroom))
do for [column = 0:1] {
  close = column == 1
  if (close) { set xrange [0:(to - from) * 1000] } else { set xrange [0:*] }
  step = close ? 1 : 4
  place(n) = close ? (n / rate - from) * 1000 : n / rate
  where = close ? ", 20 ms around its highest peak" : ""
  set xlabel (close ? "ms" : "s") offset 0,0.7

  eval panel(0, column)
  set title "the mix before the limiter, the louder of both channels".where."; dashed: what 16 bits hold"
  set ylabel "full scales"
  set yrange [-1.6:1.6]
  plot frames binary format=layout every step using (place($0)):(louder(column(1), column(2)) * headroom) with lines lc rgb "#d62728", \
    1 lc rgb "#2ca02c" lw 2 dt 2, -1 lc rgb "#2ca02c" lw 2 dt 2

  eval panel(1, column)
  set title (close ? "its gain: down along a straight line, there with the peak, then up slowly" \
    : "the limiter's gain, the same for both (not drawn where the mix is near zero)")
  set ylabel "dB"
  set yrange [-4:0.5]
  plot frames binary format=layout every step using (place($0)):(gain(louder(column(1), column(2)), louder(column(3), column(4)))) with points pt 7 ps 0.3 lc rgb "#7f7f7f"

  eval panel(2, column)
  set title "out/limited.wav, behind it, the louder of both channels".where
  set ylabel "full scales"
  set yrange [-1.6:1.6]
  plot frames binary format=layout every step using (place($0)):(louder(column(3), column(4))) with lines lc rgb "#1f77b4", \
    1 lc rgb "#2ca02c" lw 2 dt 2, -1 lc rgb "#2ca02c" lw 2 dt 2
}
unset multiplot
