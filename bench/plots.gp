# The plots of docs/performance.md: gnuplot -e "data='DIRECTORY'; images='DIRECTORY'" bench/plots.gp
# DATA is what bench/report.awk has left there.
set terminal svg size 760,380 dynamic font "sans-serif,13" background "white"
set style data histograms
set style histogram clustered gap 1.5
set style fill solid 0.85 noborder
set boxwidth 0.9
set grid ytics lc rgb "#dddddd"
set yrange [0:*]
set offsets 0, 0, graph 0.25, 0
set key top right
set border 3
set tics nomirror

set output images."/performance-load.svg"
set multiplot layout 1,2
set title "Requests a second, one processor"
plot data."/rate.dat" using 2:xtic(1) title "daemon" lc rgb "#2b6cb0", "" using 3 title "bare loop" lc rgb "#a0aec0"
set title "Processor time a request (us), one processor"
set key top left
plot data."/processor.dat" using 2:xtic(1) title "daemon" lc rgb "#2b6cb0", "" using 3 title "bare loop" lc rgb "#a0aec0"
unset multiplot

set output images."/performance-latency.svg"
set title "Latency with one request outstanding (us)"
plot data."/latency.dat" using 2:xtic(1) title "daemon" lc rgb "#2b6cb0", "" using 3 title "bare loop" lc rgb "#a0aec0"

set output images."/performance-memory.svg"
set title "Memory of an idle worker (KiB), by what it is made of"
set style histogram rowstacked
set key outside right
plot data."/memory.dat" using 2:xtic(1) title "heap" lc rgb "#2b6cb0", \
     "" using 3 title "stack and record" lc rgb "#63b3ed", \
     "" using 4 title "page tables" lc rgb "#a0aec0", "" using 5 title "pipe (kernel)" lc rgb "#4a5568"

set output images."/performance-servers.svg"
set style data linespoints
set title "Processor time a request (us), one processor"
set key outside right
set logscale x
set xlabel "servers"
plot data."/servers.dat" using 1:2 title "plain, all threads" lc rgb "#2b6cb0" pt 7, \
     "" using 1:3 title "plain, main thread" lc rgb "#63b3ed" pt 7, \
     "" using 1:4 title "TLS, all threads" lc rgb "#2f855a" pt 7, \
     "" using 1:5 title "TLS, main thread" lc rgb "#68d391" pt 7
