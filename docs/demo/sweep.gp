# Draws out/sweep.png: a tone that rises from 0 to 24 kHz, before and after the way from 48 to 44.1 kHz, and the
# frequency response measured on it: the level that is left while the tone passes a frequency.
# Run from the project's root, behind the conversions of ./kes demo.

seconds = 8.   # of the sweep, 0 to top Hz
top = 24000.
bin = 40.      # Hz, for the level

set terminal pngcairo size 1800,1000 font "DejaVu Sans,11"
set output "out/sweep.png"
set multiplot
unset key
set border 3 lc rgb "#999999"
set tics nomirror

# A spectrogram of a file, its picture scaled to time and frequency.
spectrogram(file, png) = system(sprintf("sox %s -n spectrogram -r -x 800 -y 513 -z 120 -o %s 2>&1", file, png))
array rates[2] = [48000., 44100.]
array files[2] = ["out/sweep.wav", "out/sweep-44100.wav"]
array titles[2] = ["at 48 kHz", "at 44.1 kHz: what folds back stays above 0.9 of 22.05 kHz (green)"]
set xrange [0:seconds]
set yrange [0:top / 1000]
set xlabel "s" offset 0,0.5
set ylabel "kHz"
do for [i = 1:2] {
  png = files[i].".png"
  none = spectrogram(files[i], png)
  set lmargin at screen 0.05 + 0.49 * (i - 1); set rmargin at screen 0.48 + 0.49 * (i - 1)
  set tmargin at screen 0.94; set bmargin at screen 0.53
  set title files[i]." ".titles[i]
  plot png binary filetype=png dx=(seconds / 798.) dy=(rates[i] / 2000 / 513.) with rgbimage, \
    0.9 * 22.05 lc rgb "#2ca02c" lw 2 dt 2, 22.05 lc rgb "#d62728" lw 2 dt 2
}

# The mean power per bin of the tone's frequency, after over before.
array power[2 * int(top / bin)]
bin_of(frame, rate) = floor(frame / rate / seconds * top / bin)
do for [i = 1:2] {
  set table $powers
  plot "< sox ".files[i]." -t f64 - 2>/dev/null" binary format="%float64" \
    using (bin_of($0, rates[i])):($1 * $1) smooth unique
  unset table
  stats $powers using (power[(i - 1) * int(top / bin) + int($1) + 1] = $2, 0) nooutput
}
level(k) = 10 * log10(power[int(top / bin) + k] / power[k])
set samples int(top / bin) - 1
set grid lc rgb "#dddddd"
set xlabel "kHz of the tone"
set ylabel "dB"
array details[2] = ["in detail", "all of it"]
do for [i = 1:2] {
  set lmargin at screen 0.05 + 0.49 * (i - 1); set rmargin at screen 0.48 + 0.49 * (i - 1)
  set tmargin at screen 0.43; set bmargin at screen 0.07
  set xrange [0:top / 1000]
  if (i == 1) { set yrange [-0.5:0.1] } else { set yrange [-150:10] }
  set title "Frequency response from 48 to 44.1 kHz, measured on the sweep: ".details[i]
  set arrow 1 from 22.05 * 0.9, graph 0 to 22.05 * 0.9, graph 1 nohead lc rgb "#2ca02c" lw 2 dt 2
  set arrow 2 from 22.05, graph 0 to 22.05, graph 1 nohead lc rgb "#d62728" lw 2 dt 2
  set label 1 "0.9 of 22.05 kHz" at 22.05 * 0.9 - 0.2, graph 0.1 right tc rgb "#2ca02c"
  set label 2 "22.05" at 22.05 + 0.1, graph 0.1 tc rgb "#d62728"
  plot sample [2:int(top / bin)] "+" using (($1 - 0.5) * bin / 1000):(level(int($1 + 0.5))) with lines lw 2 lc rgb "#1f77b4"
}
unset multiplot
system("rm -f ".files[1].".png ".files[2].".png")
