# Draws out/waveforms.png: every channel of the demo's files over time, each voice in its own colour.
# Run from the project's root, behind the conversions of ./kes demo.

rate = 48000.
step = 12           # frames from point to point: dense enough for the eye
voice_seconds = 1.6 # the voices follow one another at this distance
array names[6] = ["front left", "front right", "front centre", "noise (LFE)", "rear left", "rear right"]
array colours[6] = [0x1f77b4, 0xd62728, 0x2ca02c, 0x7f7f7f, 0x9467bd, 0xff7f0e]
colour(t) = colours[1 + (t < 5 * voice_seconds ? int(t / voice_seconds) : 5)]

set terminal pngcairo size 1800,1000 font "DejaVu Sans,11"
set output "out/waveforms.png"
set multiplot
unset key
unset xtics
set yrange [-0.8:0.8]
set xrange [0:6 * voice_seconds]
set ytics nomirror ("-0.5" -0.5, "0" 0, "0.5" 0.5)
set border 3 lc rgb "#999999"
set grid y lc rgb "#dddddd"

do for [v = 1:6] {
  set label v names[v] at screen 0.05 + 0.15 * v, 0.965 center tc rgb colours[v] font ",13"
}
set label 7 "voice:" at screen 0.08, 0.965 center font ",13"
set label 8 sprintf("each panel is one channel over time, 0 to %.1f s", 6 * voice_seconds) at screen 0.5, 0.02 center

# One channel of a file, as panel (column, row).
panel(file, channels, channel, column, row, title) = sprintf('set lmargin at screen %f; set rmargin at screen %f; set tmargin at screen %f; set bmargin at screen %f; set title "%s" offset 0,-0.9; plot "< sox %s -t s16 - 2>/dev/null" binary format="%%%dint16" every %d using ($0/%f):(column(%d)/32768.):(colour($0/%f)) with lines lc rgb variable', 0.035 + 0.33 * column, 0.335 + 0.33 * column, 0.885 - 0.145 * row, 0.885 - 0.145 * row - 0.105, title, file, channels, step, rate, channel, rate)

array speakers[6] = ["FL", "FR", "FC", "LFE", "BL", "BR"]
do for [c = 1:6] { eval panel("out/surround.wav", 6, c, 0, c - 1, "surround.wav, ".speakers[c]) }
do for [c = 1:2] { eval panel("out/stereo.wav", 2, c, 1, c - 1, "stereo.wav, ".(c == 1 ? "left" : "right")." (mixed down from surround.wav)") }
eval panel("out/mono.wav", 1, 1, 1, 3, "mono.wav (average of surround.wav)")
do for [c = 1:6] { eval panel("out/upmixed.wav", 6, c, 2, c - 1, "upmixed.wav, ".speakers[c]." (stereo.wav, repeated)") }
unset multiplot
