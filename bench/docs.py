# SPDX-License-Identifier: LGPL-2.1-or-later
"""The table and the chart of docs/performance.md."""


def write(lines, results):
    pass
