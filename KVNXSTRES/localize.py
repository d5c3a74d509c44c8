#!/usr/bin/env python3
"""Writes a translated resource script: the English script with every user-visible text replaced
from a translation table, so ids, dialogs, controls and their order exist in one place only.

    localize.py ENGLISH.rc TABLE.txt OUT.rc

The table holds one text a line, "English<TAB>translation", both as written between the quotes of
a resource script (\\r\\n, \\t, "" and octal escapes as they stand); the translation may also use
any character of code page 1252 directly. A line "@language LANG_X, SUBLANG_Y" names the
language. Lines starting with # are comments. A text of the script without a translation, or a
translation no text uses any more, stops the build with the list.
"""
import re
import sys

LITERAL = re.compile(r'"((?:[^"]|"")*)"')
# Statements whose strings are not shown to the user: file names, fonts, window classes.
UNTRANSLATED = re.compile(r'^\s*(#(?!define\s+KV_VERSION_DESCRIPTION)|//|FONT\b|\w+\s+(ICON|BITMAP)\s+")')


def read_table(path):
    table, language = {}, None
    with open(path, encoding='utf-8') as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip('\n')
            if not line.strip() or line.startswith('#'):
                continue
            if line.startswith('@language '):
                language = line[len('@language '):].strip()
                continue
            if line.count('\t') != 1:
                sys.exit(f'{path}:{number}: expected "English<TAB>translation"')
            english, translated = line.split('\t')
            if english in table:
                sys.exit(f'{path}:{number}: "{english}" is translated twice')
            table[english] = translated
    if language is None:
        sys.exit(f'{path}: no @language line')
    return table, language


def to_script_text(text):
    """Characters outside ASCII as octal escapes of code page 1252, which the resource compiler
    reads whatever the build machine's locale."""
    out = []
    for ch in text:
        if ord(ch) < 0x80:
            out.append(ch)
        else:
            try:
                out.append('\\%03o' % ch.encode('cp1252')[0])
            except UnicodeEncodeError:
                sys.exit(f'"{text}": {ch!r} has no place in code page 1252')
    return ''.join(out)


def main(english_rc, table_path, out_rc):
    table, language = read_table(table_path)
    missing, used, lines = [], set(), []
    with open(english_rc, encoding='ascii') as f:
        for line in f:
            if re.match(r'^\s*LANGUAGE\s', line):
                lines.append(f'LANGUAGE {language}\n')
                continue
            if UNTRANSLATED.match(line):
                lines.append(line)
                continue
            # A CONTROL's strings after its text are its window class; one named by id has no text.
            limit = None
            if re.match(r'^\s*CONTROL\s', line):
                limit = 1 if re.match(r'^\s*CONTROL\s+"', line) else 0
            count = [0]

            def translate(match):
                count[0] += 1
                english = match.group(1)
                if english == '' or (limit is not None and count[0] > limit):
                    return match.group(0)
                if english not in table:
                    missing.append(english)
                    return match.group(0)
                used.add(english)
                return '"' + to_script_text(table[english]) + '"'

            lines.append(LITERAL.sub(translate, line))
    stale = sorted(set(table) - used)
    if missing or stale:
        for english in missing:
            print(f'{table_path}: no translation of "{english}"', file=sys.stderr)
        for english in stale:
            print(f'{table_path}: "{english}" is no longer in the English script', file=sys.stderr)
        sys.exit(1)
    header = f'// Generated from {english_rc.split("/")[-1]} and {table_path.split("/")[-1]}; edit those.\n'
    with open(out_rc, 'w', encoding='ascii') as f:
        f.write(header + ''.join(lines))


if __name__ == '__main__':
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(*sys.argv[1:])
