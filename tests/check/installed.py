#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Installs a build into an empty place, and builds the README's first program as its reader would: with a C compiler and
pkg-config, against what was installed alone. The program then runs against the installed simulator.

installed.py BUILD README COMPILER..."""
import contextlib
import os
import pathlib
import re
import subprocess
import sys
import tempfile

build, readme, *compiler = sys.argv[1:]
program = re.search(r'^```c\n(.*?)^```', pathlib.Path(readme).read_text(encoding='utf-8'), re.M | re.S).group(1)



@contextlib.contextmanager
def kept(path):
    """The file is afterwards as it was before: `ninja uninstall` goes by the log of the latest installation."""
    content = path.read_bytes() if path.exists() else None
    try:
        yield
    finally:
        if content is not None:
            path.write_bytes(content)
        else:
            path.unlink(missing_ok=True)


with tempfile.TemporaryDirectory() as place:
    with kept(pathlib.Path(build, 'meson-logs/install-log.txt')):
        subprocess.run(['meson', 'install', '-C', build, '--no-rebuild', '--quiet', '--destdir', place], check=True)
    description = next(pathlib.Path(place).rglob('libbdbus.pc'))
    prefix = pathlib.Path(place + re.search(r'^prefix=(.*)', description.read_text(encoding='utf-8'), re.M).group(1))
    environment = {**os.environ, 'PKG_CONFIG_PATH': str(description.parent), 'LD_LIBRARY_PATH': str(description.parent.parent)}

    flags = subprocess.run(['pkg-config', f'--define-variable=prefix={prefix}', '--cflags', '--libs', 'libbdbus'],
                           env=environment, check=True, capture_output=True, text=True).stdout.split()
    subprocess.run([*compiler, '-std=c99', '-Wall', '-Werror', '-x', 'c', '-', '-x', 'none', *flags, '-o', f'{place}/first'],
                   input=program, text=True, check=True)
    done = subprocess.run([prefix / 'bin/bdbus-sim', 'run', '--', f'{place}/first'], env=environment, capture_output=True, text=True)
    assert done.returncode == 0 and done.stdout.startswith('firmware '), done
