#!/usr/bin/env python3
"""record_terminal.py PICTURE COMMAND...: runs COMMAND on a terminal of its own and draws what it said as
an animated SVG. Lines scroll in as they came, a silence being shortened; a viewer that does not
animate, or is asked to move less, shows the end."""
import html, os, pty, re, sys, time

COLUMNS, ROWS = 100, 30
LINE_PX, CHARACTER_PX = 17, 7.8
LONGEST_PAUSE_S, END_S = 1.2, 6
STYLES = {"1": "b", "2": "d", "31": "r", "32": "g"}

lines = []  # (seconds at which it was whole, text with its escape sequences)
pending = b""


def take(fd):
    global pending
    data = os.read(fd, 4096)
    *whole, pending = (pending + data).split(b"\n")
    lines.extend((time.monotonic(), line.decode(errors="replace")) for line in whole)
    return data


def drawn(line, y):
    # What a carriage return lets later text cover is not shown.
    line = re.sub(r"\x1b\[K", "", line.rstrip("\r").rsplit("\r", 1)[-1])
    spans, style = [], ""
    for part in re.split(r"(\x1b\[[0-9;]*m)", line):
        if part.startswith("\x1b"):
            style = STYLES.get(part[2:-1], "")
        elif part:
            spans.append(f'<tspan class="{style}">{html.escape(part[:COLUMNS])}</tspan>')
    return f'<text x="12" y="{y}">{"".join(spans)}</text>'


os.environ.update(TERM="xterm", COLUMNS=str(COLUMNS))
if pty.spawn(sys.argv[2:], take, lambda fd: b"") != 0:
    sys.exit("record_terminal.py: the command failed")

clock, before, times = 0.0, lines[0][0], []
for at, _ in lines:
    clock, before = clock + min(at - before, LONGEST_PAUSE_S), at
    times.append(clock)
total = clock + END_S
width, height = int(COLUMNS * CHARACTER_PX) + 24, ROWS * LINE_PX + 20
frames = [
    f"{100 * at / total:.2f}%{{transform:translateY({(ROWS - 1 - i) * LINE_PX}px)}}"
    for i, at in enumerate(times)
]
last = f"transform:translateY({(ROWS - len(lines)) * LINE_PX}px)"
with open(sys.argv[1], "w") as picture:
    picture.write(
        f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}">
<style>text{{font:13px monospace;fill:#d8dee9;white-space:pre}}.b{{font-weight:bold;fill:#fff}}
.d{{fill:#8b93a3}}.r{{fill:#e06c75}}.g{{fill:#98c379}}
#lines{{{last};animation:scroll {total:.1f}s step-end infinite}}
@keyframes scroll{{{"".join(frames)}100%{{{last}}}}}
@media(prefers-reduced-motion:reduce){{#lines{{animation:none}}}}</style>
<rect width="100%" height="100%" rx="8" fill="#20242c"/>
<svg y="6" width="{width}" height="{ROWS * LINE_PX + 8}"><g id="lines">
{chr(10).join(drawn(line, (i + 1) * LINE_PX) for i, (_, line) in enumerate(lines))}
</g></svg></svg>
"""
    )
