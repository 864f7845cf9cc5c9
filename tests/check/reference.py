#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The reference of the interface, made by Doxygen from the comments of the headers.

check  all that the headers declare has a comment of its own, every function also one for each parameter and for its
       result; and the functions and variables are those of the version script
html   builds the reference, to be read in a browser

Without Doxygen, it exits with 77.
"""
import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

from interface import mapped_symbols, skip

ELSEWHERE = re.compile(r'as (the|this) file says', re.IGNORECASE)  # an editor shows the function's own comment alone


def doxygen(args, output, *settings):
    """Run Doxygen with the configuration of the tree. @return what it complains of."""
    configuration = (args.config.read_text(), f'INPUT = "{args.include}/bdbus"', f'OUTPUT_DIRECTORY = "{output}"',
                     f'STRIP_FROM_PATH = "{args.include}"', f'STRIP_FROM_INC_PATH = "{args.include}"', *settings)
    output.mkdir(parents=True, exist_ok=True)
    done = subprocess.run(['doxygen', '-'], input='\n'.join(configuration), capture_output=True, text=True)
    return [done.stderr or f'doxygen ended with {done.returncode}'] if done.returncode != 0 else []


def words(element):
    return '' if element is None else ' '.join(''.join(element.itertext()).split())


def has_comment(member):
    return any(words(member.find(part)) for part in ('briefdescription', 'detaileddescription'))


def lacks_of_function(function):
    described = {
        words(name)
        for item in function.iterfind('.//parameteritem') if words(item.find('parameterdescription'))
        for name in item.iterfind('.//parametername')
    }
    for parameter in function.iterfind('param'):
        name = words(parameter.find('declname')) or words(parameter.find('type'))
        if name not in described | {'void'}:
            yield f'parameter {name} is not described'
    if words(function.find('type')) != 'void' and not words(function.find('.//simplesect[@kind="return"]')):
        yield 'result is not described'


def lacks(member):
    """What a member's comment leaves out."""
    if not has_comment(member):
        return ['no comment of its own']
    found = list(lacks_of_function(member)) if member.get('kind') == 'function' else []
    if ELSEWHERE.search(' '.join(words(part) for part in member)):
        found.append('refers to the comment of the file')
    return found


def read_reference(args):
    """@return what Doxygen complains of, and its pages: those of the headers and those of the records."""
    with tempfile.TemporaryDirectory() as scratch:
        # HTML is made, too: without it, this release takes parameters that are described for undescribed.
        found = doxygen(args, pathlib.Path(scratch))
        pages = [[xml.etree.ElementTree.parse(path).getroot() for path in pathlib.Path(scratch, 'xml').glob(pattern)]
                 for pattern in ('*_8h.xml', 'struct*.xml')]
    return found, *pages


def check(args):
    found, headers, records = read_reference(args)
    members = [member for page in headers + records for member in page.iter('memberdef')]
    for member in [*members, *(value for member in members for value in member.iterfind('enumvalue'))]:
        found += [f'{member.findtext("name")}: {lack}' for lack in lacks(member)]
    found += [
        f'{record.findtext(".//compoundname")}: no comment of its own' for record in records
        if not has_comment(record.find('compounddef'))
    ]
    described = {
        member.findtext('name')
        for page in headers for member in page.iter('memberdef') if member.get('kind') in ('function', 'variable')
    }
    exported = {symbol.split('@')[0] for symbol in mapped_symbols(args.map)}
    found += [f'{name}: in the version script, not in the reference' for name in sorted(exported - described)]
    return found + [f'{name}: in the reference, not in the version script' for name in sorted(described - exported)]


def html(args):
    found = doxygen(args, args.output, 'GENERATE_XML = NO')
    if not found:
        print(args.output / 'html' / 'files.html')
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    actions = {'check': check, 'html': html}
    parser.add_argument('action', choices=actions)
    parser.add_argument('--config', type=pathlib.Path, required=True, help="Doxygen's configuration")
    parser.add_argument('--include', type=pathlib.Path, required=True, help='the directory that holds bdbus/')
    parser.add_argument('--map', type=pathlib.Path, help='the version script, for the check')
    parser.add_argument('--output', type=pathlib.Path, help='where the pages go')
    args = parser.parse_args()
    if shutil.which('doxygen') is None:
        skip('There is no doxygen.')
    found = actions[args.action](args)
    print('\n'.join(found))
    return 1 if found else 0


if __name__ == '__main__':
    sys.exit(main())
