#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Checks what the library shows to the outside.

symbols       the headers, the version script and the built library name the same functions and variables
symbols-self  the symbol check notices a name that only some of the three have
headers       every public header compiles alone, as C99 and as C++20
runtime       what the library needs to be loaded, and that nothing runs when it is
abi           signatures, constants and layouts are those of the dump in the tree for this processor; where there is
              none, or no pahole, the check is skipped
abi-dump      makes the dumps of all processors anew, with Debian's compilers for each

A check that this machine cannot make exits with 77.
"""
import argparse
import difflib
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

NEEDED = {'libsystemd', 'libexpat', 'libc'}  # of whatever version this machine has
LOADED_LATER = {'libwolfssl'}
LOADER = re.compile(r'ld-linux\b.*')  # glibc keeps the stack guard and thread-local storage there on some processors
DUMPS = {'x86_64': 'x86_64-linux-gnu-gcc', 'arm': 'arm-linux-gnueabihf-gcc'}  # for what, and made with what
SKIPPED = 77
SONAME = 'libbdbus.so.1'
OURS = r'(?:bdbus|bnetwork1?)_\w+'  # the names of functions, variables and records


def run(*command, stdin=None):
    done = subprocess.run([str(word) for word in command], input=stdin, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f'{" ".join(map(str, command))}\n{done.stdout}{done.stderr}')
    return done.stdout


class Headers:
    """The public headers, as the compiler reads them."""
    def __init__(self, directory, compiler):
        self.flags = ['-std=c99', '-I', directory]
        self.compiler = compiler
        self.files = sorted(path.relative_to(directory) for path in (directory / 'bdbus').glob('*.h'))
        self.includes = ''.join(f'#include <{path}>\n' for path in self.files)
        self.text = run(*compiler, *self.flags, '-E', '-P', '-x', 'c', '-', stdin=self.includes)

    def prototypes(self):
        """Every function of ours as a one-line prototype."""
        with tempfile.NamedTemporaryFile('r', suffix='.txt') as listing:
            run(*self.compiler, *self.flags, '-fsyntax-only', '-aux-info', listing.name, '-x', 'c', '-',
                stdin=self.includes)
            lines = re.findall(r'^/\*.*?\*/ extern (.*)$', listing.read(), re.MULTILINE)
        return sorted({line for line in lines if re.search(rf'\b{OURS} \(', line)})

    def functions(self):
        return {re.search(rf'\b({OURS}) \(', line)[1] for line in self.prototypes()}

    def variables(self):
        names = set()
        for declaration in re.findall(r'\bextern\b([^;{]*);', self.text):
            pointer_to_function = re.search(rf'\(\s*\*\s*({OURS})\s*\)', declaration)
            plain = re.search(rf'\b({OURS})\s*(?:\[[^]]*\]\s*)*$', declaration)
            names.update(match[1] for match in (pointer_to_function or plain, ) if match)
        return names

    def constants(self):
        defined = run(*self.compiler, *self.flags, '-E', '-dM', '-x', 'c', '-', stdin=self.includes)
        return sorted(re.findall(r'^#define (BDBUS_\w+ .+)$', defined, re.MULTILINE))

    def types(self):
        return sorted(set(re.findall(rf'\b(?:struct|union|enum)\s+({OURS})\s*\{{', self.text)))


def mapped_symbols(version_script):
    """The names that the version script lets out, each with its node."""
    text = re.sub(r'/\*.*?\*/|#[^\n]*', '', version_script.read_text(), flags=re.DOTALL)
    symbols = set()
    for node, body in re.findall(r'(\w+)\s*\{(.*?)\}', text, re.DOTALL):
        let_out = re.search(r'global\s*:(.*?)(?:local\s*:|$)', body, re.DOTALL)
        symbols.update(f'{name.strip()}@@{node}' for name in (let_out[1] if let_out else '').split(';') if name.strip())
    return symbols


def library_symbols(library, readelf):
    """The names that programs can link against, each with its version."""
    symbols = set()
    for line in run(readelf, '--dyn-syms', '-W', library).splitlines():
        columns = line.split()
        if len(columns) == 8 and columns[4] in ('GLOBAL', 'WEAK') and columns[6] not in ('UND', 'ABS'):
            symbols.add(columns[7])
    return symbols


def differences(headers, version_script, library, readelf):
    mapped = mapped_symbols(version_script)
    declared = headers.functions() | headers.variables()
    built = library_symbols(library, readelf)
    mapped_names = {symbol.split('@')[0] for symbol in mapped}
    sides = (('declared in the headers, not in the version script',
              declared - mapped_names), ('in the version script, not declared in the headers', mapped_names - declared),
             ('in the version script, not in the library',
              mapped - built), ('in the library, not in the version script', built - mapped))
    found = [f'{name}: {what}' for what, names in sides for name in sorted(names)]
    return found if declared else ['the headers declare nothing']


def link_all(headers, version_script, library):
    """A C program that takes the address of everything there is must compile and link."""
    names = sorted({symbol.split('@')[0]
                    for symbol in mapped_symbols(version_script)}
                   | headers.functions() | headers.variables())
    addresses = ''.join(f'    (const void *)&{name},\n' for name in names)
    with tempfile.TemporaryDirectory() as scratch:
        run(
            *headers.compiler, *headers.flags, '-Wall', '-Werror', '-x', 'c', '-', '-x', 'none', library, '-o',
            f'{scratch}/all', stdin=f'{headers.includes}const void *const all[] = {{\n{addresses}}};\n'
            'int main(void)\n{\n    return all[0] == 0;\n}\n')


def check_symbols(args):
    headers = Headers(args.include, args.compiler)
    found = differences(headers, args.map, args.library, args.readelf)
    if not found:
        link_all(headers, args.map, args.library)
    return found


def check_symbols_self(args):
    """Lets the comparison loose on copies of which one has a name too many or too few."""
    original = args.map.read_text()
    first = sorted(mapped_symbols(args.map))[0].split('@')[0]
    without_first = re.sub(rf'\b{first};', '', original)
    with_extra = original.replace('global:', 'global: bdbus_extra;', 1)
    extra_header = '#ifndef EXTRA_H\n#define EXTRA_H\nvoid bdbus_extra(void);\n#endif\n'
    extra_variable = extra_header.replace('void bdbus_extra(void)', 'extern int (*bdbus_extra)(int)')
    cases = (('nothing changed', original, original, '',
              None), ('missing in the version script', without_first, original, '',
                      first), ('extra in the version script', with_extra, original, '',
                               'bdbus_extra'), ('missing in the library', original, without_first, '', first),
             ('extra in the library', original, with_extra, '',
              'bdbus_extra'), ('extra function in the headers', original, original, extra_header, 'bdbus_extra'),
             ('extra variable in the headers', original, original, extra_variable,
              'bdbus_extra'), ('other version node', original, original.replace('BDBUS_1', 'BDBUS_0'), '', first))
    found = []
    for title, version_script, exported, header, culprit in cases:
        with tempfile.TemporaryDirectory() as scratch:
            reported = differences(*altered_copies(pathlib.Path(scratch), args, version_script, exported, header),
                                   args.readelf)
        named = any(line.startswith((f'{culprit}:', f'{culprit}@')) for line in reported)
        if named != (culprit is not None) or (culprit is None and reported):
            found.append(f'{title}: reported {reported}')
    return found


def altered_copies(scratch, args, version_script, exported, header):
    """Headers, version script and a stand-in library that exports what the version script `exported` lets out."""
    shutil.copytree(args.include / 'bdbus', scratch / 'include' / 'bdbus')
    if header:
        (scratch / 'include' / 'bdbus' / 'extra.h').write_text(header)
    (scratch / 'mapped').write_text(version_script)
    (scratch / 'exported').write_text(exported)
    names = {symbol.split('@')[0] for symbol in mapped_symbols(scratch / 'exported')}
    run(*args.compiler, '-shared', '-nostdlib', '-fPIC', f'-Wl,--version-script={scratch}/exported', '-o',
        scratch / 'library.so', '-x', 'c', '-', stdin=''.join(f'int {name};\n' for name in sorted(names)))
    return Headers(scratch / 'include', args.compiler), scratch / 'mapped', scratch / 'library.so'


def check_headers(args):
    headers = Headers(args.include, args.compiler)
    ways = ((args.compiler, ['-std=c99', '-pedantic', '-Wall', '-Wextra', '-Wstrict-prototypes', '-x',
                             'c']), (args.cpp_compiler, ['-std=c++20', '-pedantic', '-Wall', '-Wextra', '-x', 'c++']))
    found = []
    for header in headers.files:
        for compiler, flags in ways:
            done = subprocess.run([*compiler, '-Werror', '-fsyntax-only', '-I', args.include, *flags, '-'],
                                  input=f'#include <{header}>\n', capture_output=True, text=True)
            found += [done.stderr] if done.returncode else []
    whole = re.findall(r'#include <(bdbus/.*?)>', (args.include / 'bdbus/bdbus.h').read_text())
    left_out = {str(header) for header in headers.files} - {'bdbus/bdbus.h'} - set(whole)
    return found + [f'bdbus/bdbus.h leaves out {header}' for header in sorted(left_out)]


def check_runtime(args):
    dynamic = run(args.readelf, '-d', '-W', args.library)
    sections = run(args.readelf, '-S', '-W', args.library)
    word_size = 8 if 'ELF64' in run(args.readelf, '-h', args.library) else 4
    needed = {name.split('.so')[0] for name in re.findall(r'\(NEEDED\).*\[(.*?)\]', dynamic) if not LOADER.match(name)}

    found = [f'needs {name}' for name in sorted(needed - NEEDED)]
    found += [f'does not need {name}' for name in sorted(NEEDED - needed)]
    note = re.findall(rb'"soname":\["(.*?)\.so', args.library.read_bytes())
    if {name.decode() for name in note} != LOADED_LATER or '.note.dlopen' not in sections:
        found.append('does not say what it loads later')
    found += [f'has {tag}' for tag in ('RPATH', 'RUNPATH', 'TEXTREL') if f'({tag})' in dynamic]
    if re.findall(r'\(SONAME\).*\[(.*?)\]', dynamic) != [SONAME]:
        found.append(f'soname is not {SONAME}')
    if not re.search(r'\(FLAGS_1\).*\bNODELETE\b', dynamic):
        found.append('may be unloaded: linked without -z nodelete')
    # The compiler's own start-up code has one entry in each array.
    for array, size in re.findall(r'\((INIT_ARRAY|FINI_ARRAY)SZ\) +(\d+)', dynamic):
        if int(size) > word_size:
            found.append(f'runs code of its own when it is loaded or unloaded: {array} has {size} bytes')
    found += [f'has a section {name}' for name in ('.ctors', '.dtors') if f' {name} ' in sections]
    return found


def abi_dump(headers):
    with tempfile.TemporaryDirectory() as scratch:
        run(*headers.compiler, *headers.flags, '-g', '-c', '-fno-eliminate-unused-debug-types', '-x', 'c', '-', '-o',
            f'{scratch}/all.o', stdin=headers.includes)
        layouts = run('pahole', '--sort', '-C', ','.join(headers.types()), f'{scratch}/all.o')
    layouts = re.sub(r'cachelines: \d+, |\n\s*/\* (--- |last |XXX ).*|, bit_padding.*', '', layouts)
    layouts = re.sub(r'\n{2,}', '\n', layouts).replace('\t', '    ')
    listings = headers.prototypes(), sorted(headers.variables()), headers.constants()
    return '\n'.join(''.join(f'{line}\n' for line in listing) for listing in (*listings, layouts.splitlines()))


def check_abi(args):
    committed = args.dumps / f'{args.cpu_family}.txt'
    if not committed.exists():
        skip(f'There is no dump for {args.cpu_family}.')
    if shutil.which('pahole') is None:
        skip('There is no pahole (Debian: dwarves).')
    dump = abi_dump(Headers(args.include, args.compiler))
    found = list(
        difflib.unified_diff(committed.read_text().splitlines(), dump.splitlines(), str(committed), 'as built',
                             lineterm=''))
    return found + ['When the change is meant: ninja -C BUILD abi-dump'] if found else []


def write_dumps(args):
    """All or none: what is missing is said before anything is written."""
    missing = [program for program in ('pahole', *DUMPS.values()) if shutil.which(program) is None]
    if missing:
        return [f'{program} is not installed' for program in missing]
    # The headers of libsystemd are the same for all processors; those of the C library are not, and come first.
    systemd = ['-idirafter', run('pkg-config', '--variable=includedir', 'libsystemd').strip()]
    dumps = {family: abi_dump(Headers(args.include, [compiler, *systemd])) for family, compiler in DUMPS.items()}
    for family, dump in dumps.items():
        (args.dumps / f'{family}.txt').write_text(dump)
    return []


def skip(reason):
    print(reason)
    sys.exit(SKIPPED)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    checks = {
        'symbols': check_symbols, 'symbols-self': check_symbols_self, 'headers': check_headers, 'runtime':
        check_runtime, 'abi': check_abi, 'abi-dump': write_dumps
    }
    parser.add_argument('check', choices=checks)
    parser.add_argument('--include', type=pathlib.Path, help='the directory that holds bdbus/')
    parser.add_argument('--map', type=pathlib.Path, help='the version script')
    parser.add_argument('--library', type=pathlib.Path)
    parser.add_argument('--dumps', type=pathlib.Path, help='the directory of the dumps')
    parser.add_argument('--cpu-family', help='as Meson calls the processor that is built for')
    parser.add_argument('--compiler', action='append', help='for C; once for each word of it')
    parser.add_argument('--cpp-compiler', action='append')
    parser.add_argument('--readelf', type=pathlib.Path)
    args = parser.parse_args()
    found = checks[args.check](args)
    print('\n'.join(found))
    return 1 if found else 0


if __name__ == '__main__':
    sys.exit(main())
