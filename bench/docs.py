# SPDX-License-Identifier: LGPL-2.1-or-later
"""Put the table and the chart of a run into docs/."""

import math
from pathlib import Path
from xml.sax.saxutils import escape

DOCS = Path(__file__).resolve().parent.parent / 'docs'
BEGIN, END = '<!-- written by scripts/bench --write-docs -->\n', '<!-- to here -->\n'

# Of middling brightness, so that they stand out on white and on black.
COLORS = ('#2f81f7', '#8b949e', '#d29922', '#a371f7', '#3fb950')
STYLE = """
  text { font: 13px sans-serif; fill: #1f2328 }
  .grid { stroke: #8b949e; stroke-opacity: 0.35 }
  @media (prefers-color-scheme: dark) { text { fill: #e6edf3 } }
"""
LEFT, TOP, WIDTH = 220, 56, 500
BAR, GAP = 15, 16


def markdown(lines):
    head, *rest = lines
    rule = ['---' if column < 2 else '--:' for column in range(len(head))]
    return ''.join(f'| {" | ".join(line)} |\n' for line in [head, rule, *rest])


def chart(groups, names):
    """Bars on a logarithmic scale: for each group, a title and a value for each name."""
    values = [value for _, group in groups for value in group]
    low, high = math.floor(math.log10(min(values))), math.log10(max(values) * 1.6)
    height = TOP + len(groups) * (len(names) * BAR + GAP) + 10

    def across(value):
        return (math.log10(value) - low) / (high - low) * WIDTH

    def text(x, y, words, anchor='start'):
        return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}">{escape(words)}</text>'

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + 20} {height}">',
        f'<style>{STYLE}</style>'
    ]
    for index, (name, color) in enumerate(zip(names, COLORS)):
        parts.append(f'<rect x="{20 + index * 130}" y="10" width="12" height="12" fill="{color}"/>')
        parts.append(text(38 + index * 130, 21, name))
    for step in (10**power * digit for power in range(low, math.ceil(high)) for digit in (1, 2, 5)):
        if math.log10(step) <= high:
            x = LEFT + across(step)
            parts.append(f'<line class="grid" x1="{x:.0f}" y1="{TOP - 6}" x2="{x:.0f}" y2="{height}"/>')
            parts.append(text(x, TOP - 12, f'{step:,}', 'middle'))
    y = TOP
    for title, group in groups:
        parts.append(text(LEFT - 10, y + len(names) * BAR / 2 + 4, title, 'end'))
        for value, color in zip(group, COLORS):
            parts.append(f'<rect x="{LEFT}" y="{y}" width="{across(value):.0f}" height="{BAR - 3}" fill="{color}"/>')
            parts.append(text(LEFT + across(value) + 5, y + BAR - 4, f'{value:,.0f}'))
            y += BAR
        y += GAP
    return '\n'.join([*parts, '</svg>', ''])


def write(lines, results, peers):
    """Replace the table between the marks, and the chart of the rows that all peers do."""
    page = DOCS / 'performance.md'
    before, rest = page.read_text().split(BEGIN)
    after = rest.split(END)[1]
    page.write_text(f'{before}{BEGIN}{markdown(lines)}{END}{after}')

    compared = [result for result in results if result.unit == 'instr' and set(peers) <= set(result.peers)]
    groups = [(result.title, [result.library, result.bare, *(result.peers[peer] * result.bare for peer in peers)])
              for result in compared]
    (DOCS / 'performance.svg').write_text(chart(groups, ['libbdbus', 'bare sd-bus', *peers.values()]))
