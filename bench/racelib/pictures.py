"""The pictures of docs/benchmarks.md, drawn by gnuplot."""

import subprocess
from pathlib import Path

from .results import CURVE_MBITS, OURS

# Colours that people who see few colours can tell apart, and a mark of its own for each program besides.
STYLES = {
    "tolmdbud": ("#d55e00", 7), "ostree-file": ("#0072b2", 5), "ostree-deltas": ("#56b4e9", 4), "ostree-objects": ("#000000", 8),
    "casync": ("#009e73", 9), "zsync": ("#cc79a7", 13), "full": ("#777777", 11),
}
SPARE_STYLES = [("#d55e00", 7), ("#0072b2", 5), ("#009e73", 9), ("#cc79a7", 13), ("#777777", 11), ("#e69f00", 15),
                ("#56b4e9", 4), ("#000000", 8), ("#0072b2", 2)]
DATA_COLOURS = ("#0072b2", "#e69f00", "#009e73", "#cc79a7", "#56b4e9", "#777777")
PLAIN = """set encoding utf8
set border 3 lc rgb "#333333"
set tics nomirror out
set grid lc rgb "#dddddd" lw 1 dt 1
set key noenhanced spacing 1.1
set title font ",15"
"""


def quoted(text):
    return '"' + str(text).replace("\\", "\\\\").replace('"', '\\"') + '"'


def block(name, rows):
    return f"${name} << END\n" + "".join("\t".join(str(cell) for cell in row) + "\n" for row in rows) + "END\n"


def plot(directory, name, title, description, height, script):
    """Has gnuplot draw a picture, and says in it what it shows; the text is at least 13 px high."""
    path = Path(directory) / f"{name}.svg"
    head = (f'set terminal svg size 800,{height} font "DejaVu Sans,Helvetica,Arial,sans-serif,13" background "#ffffff"\n'
            f"set output {quoted(path)}\n{PLAIN}")
    drawn = subprocess.run(["gnuplot"], input=head + script, text=True, capture_output=True)
    if drawn.returncode != 0 or "warning" in drawn.stderr:
        raise RuntimeError(f"gnuplot did not draw {path}: {drawn.stderr[-400:]}")
    svg = path.read_text()
    svg = svg.replace("<title>Gnuplot</title>", f"<title>{escaped(title)}</title>", 1)
    begin, end = svg.index("<desc>"), svg.index("</desc>")
    path.write_text(svg[:begin] + "<desc>" + escaped(description) + svg[end:])


def escaped(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def line_style(key):
    return f'lc rgb "{STYLES[key][0]}" lw {3 if key == OURS else 1.6}'


def style(key):
    return f"{line_style(key)} pt {STYLES[key][1]} ps {1 if key == OURS else 0.8}"


NAMES = ("bytes", "time", "memory", "growth-size", "growth-files", "releases")


def draw(results, directory):
    """All pictures that the results are enough for; no other one stays."""
    Path(directory).mkdir(parents=True, exist_ok=True)
    for name in NAMES:
        Path(directory, f"{name}.svg").unlink(missing_ok=True)
    if results.steps():
        draw_bytes(results, directory)
        draw_time(results, directory)
        draw_memory(results, directory)
    for group, name, axis, title in (
            ("size", "growth-size", "size of the file (MiB)", "Updating one file of which 1 % changed"),
            ("count", "growth-files", "number of files", "Updating files of 250 bytes of which 1 % changed")):
        if len(results.group(group)) > 1:
            draw_growth(results, directory, group, name, axis, title)
    if results.releases:
        draw_releases(results, directory)


def draw_bytes(results, directory):
    """Bars that lie: the bytes of each program, made of those of each database."""
    sets = results.steps()
    names = list(dict.fromkeys(one["title"].split(",")[0] for one in sets))
    rows = []
    for number, key in enumerate(results.programs):
        parts = [sum(results.median(one, key, "wire_bytes") for one in sets if one["title"].split(",")[0] == name) / 1e6
                 for name in names]
        rows.append((number, results.labels[key], sum(parts), parts))
    largest = max(row[2] for row in rows)
    text = block("rows", [(number, quoted(label), f"{total:.4f}", quoted(f"{total:.1f} MB"),
                           *(f"{sum(parts[:at]):.4f}\t{sum(parts[:at + 1]):.4f}" for at in range(len(names))))
                          for number, label, total, parts in rows])
    steps = f"{len(sets)} updates of real data ({', '.join(names)})"
    text += f"""
set title {quoted("What a device downloads: " + str(len(sets)) + " updates of real data")}
set xlabel "bytes on the wire (MB), all updates together\\n"
set xrange [0:{largest * 1.15:.3f}]
set yrange [{len(rows) - 0.4}:-0.6]
set grid noytics xtics
set style fill solid 1 noborder
set ytics scale 0
set key outside bottom center horizontal samplen 1.5
set datafile separator "\\t"
plot """ + ", ".join(
        [f"$rows using {5 + 2 * at}:1:{5 + 2 * at}:{6 + 2 * at}:($1-0.32):($1+0.32):ytic(2) with boxxyerror "
         f'lc rgb "{DATA_COLOURS[at % len(DATA_COLOURS)]}" title {quoted(name)}' for at, name in enumerate(names)] +
        ["$rows using 3:1:4 with labels left offset 0.5,0 notitle"]) + "\n"
    plot(directory, "bytes", "Bytes on the wire by program",
         f"Bytes that devices download for {steps}: " +
         ", ".join(f"{label} {total:.1f} MB" for _, label, total, _ in rows), 400, text)


def draw_time(results, directory):
    """Lines over the speed of the line; the runs that were made stand on them as marks."""
    sets = results.steps()
    lines = [line for line in results.about["lines_mbits"]]
    text, plots, labels = "", [], []
    for number, key in enumerate(results.programs):
        text += block(f"model{number}", [(speed, f"{results.total_modelled(sets, key, speed):.4f}") for speed in CURVE_MBITS])
        text += block(f"run{number}", [(line, f"{results.total(sets, key, 'seconds', line=line):.4f}") for line in lines])
        plots.append(f"$model{number} using 1:2 with lines {line_style(key)} notitle")
        plots.append(f"$run{number} using 1:2 with points {style(key)} notitle")
        plots.append(f"NaN with linespoints {style(key)} title {quoted(results.labels[key])}")
    text += f"""
set title {quoted(f"Total time of {len(sets)} updates of real data, by the speed of the line")}
set xlabel "speed of the line (Mbit/s)\\n"
set ylabel "seconds, all updates together"
set logscale xy
set xrange [1:1000]
set xtics ("1" 1, "2" 2, "5" 5, "10" 10, "20" 20, "50" 50, "100" 100, "200" 200, "500" 500, "1000" 1000)
set key outside bottom center horizontal
set label "marks: really run; lines: calculated of bytes and of the time on loopback" at graph 0.99,0.95 right
plot """ + ", ".join(plots) + "\n"
    plot(directory, "time", "Total time by speed of the line",
         "Seconds of the updates by the speed of the line in Mbit/s: " + "; ".join(
             f"{results.labels[key]} " + ", ".join(f"{results.total_modelled(sets, key, speed):.1f} s at {speed}"
                                                   for speed in (1, 10, 100, 1000)) for key in results.programs), 500, text)


def draw_memory(results, directory):
    sets = results.real()
    rows = []
    for number, key in enumerate(results.programs):
        largest = max(results.median(one, key, "peak_kib") or 0 for one in sets) / 1024
        rows.append((number, quoted(results.labels[key]), f"{largest:.2f}", quoted(f"{largest:.1f} MiB"),
                     int(STYLES[key][0][1:], 16)))
    text = block("rows", rows) + f"""
set title "Memory of an update on the device: the most of all updates of real data"
set xlabel "largest resident set of a process (MiB)"
set xrange [0:{max(float(row[2]) for row in rows) * 1.15:.2f}]
set yrange [{len(rows) - 0.4}:-0.6]
set grid noytics xtics
set style fill solid 1 noborder
set ytics scale 0
set datafile separator "\\t"
plot $rows using 3:1:(0):3:($1-0.32):($1+0.32):5:ytic(2) with boxxyerror lc rgb variable notitle, \\
     $rows using 3:1:4 with labels left offset 0.5,0 notitle
"""
    plot(directory, "memory", "Memory of an update by program",
         "Largest resident set of a process on the device: " + ", ".join(f"{row[1][1:-1]} {row[3][1:-1]}" for row in rows),
         360, text)


def draw_growth(results, directory, group, name, axis, title):
    """Two pictures side by side: seconds and memory, over the size."""
    sets = results.group(group)
    text, seconds, memory = "", [], []
    for number, key in enumerate(results.programs):
        rows = [(one["measure"], f"{results.median(one, key, 'seconds'):.4f}",
                 f"{results.median(one, key, 'peak_kib') / 1024:.3f}")
                for one in sets if results.median(one, key, "seconds") is not None]
        if not rows:
            continue
        text += block(f"rows{number}", rows)
        seconds.append(f"$rows{number} using 1:2 with linespoints {style(key)} notitle")
        memory.append(f"$rows{number} using 1:3 with linespoints {style(key)} notitle")
    keys = [f"NaN with linespoints {style(key)} title {quoted(results.labels[key])}" for key in results.programs]
    measures = [one["measure"] for one in sets]
    ticks = ", ".join(f'"{measure:,}" {measure}' for measure in measures)
    text += f"""
set multiplot
set title font ",13"
set logscale xy
set xrange [{measures[0] * 0.7}:{measures[-1] * 1.4}]
set xtics ({ticks})
set xlabel {quoted(axis)}
set size 0.5,0.76
set origin 0,0.19
set title {quoted("seconds on loopback")}
set ylabel "seconds"
plot {", ".join(seconds)}
set origin 0.5,0.19
set title {quoted("memory on the device")}
set ylabel "largest resident set (MiB)"
plot {", ".join(memory)}
set origin 0,0.01
set size 1,0.18
unset title; unset xlabel; unset ylabel; unset tics; unset border; unset grid; unset logscale
set xrange [0:1]; set yrange [0:1]
set key center center horizontal
plot {", ".join(keys)}
set origin 0,0.93
set size 1,0.07
unset key
set label 1 {quoted(title)} at screen 0.5,0.965 center font ",15"
plot NaN notitle
unset multiplot
"""
    plot(directory, name, title, f"{title}: seconds and memory of each program by {axis}", 480, text)


def draw_releases(results, directory):
    commands = list(dict.fromkeys(command for _, command, _ in results.releases))
    text, plots = "", []
    for number, command in enumerate(commands):
        colour, mark = SPARE_STYLES[number % len(SPARE_STYLES)]
        text += block(f"rows{number}", sorted((count, value) for count, name, value in results.releases if name == command))
        plots.append(f'$rows{number} using 1:2 with linespoints lc rgb "{colour}" lw 2 pt {mark} title {quoted(command)}')
    counts = sorted({count for count, _, _ in results.releases})
    text += f"""
set title "A repository of many releases: how long commands take"
set xlabel "releases in the repository\\n"
set ylabel "seconds"
set logscale xy
set xrange [{counts[0] * 0.8}:{counts[-1] * 1.25}]
set xtics ({", ".join(f'"{count:,}" {count}' for count in counts)})
set key outside right center vertical Left reverse
plot {", ".join(plots)}
"""
    plot(directory, "releases", "Seconds of commands by the number of releases",
         "Seconds of each command of tolmdbpub by the number of releases: " + "; ".join(
             f"{command} {value:.2f} s with {count}" for count, command, value in results.releases), 460, text)
