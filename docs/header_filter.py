#!/usr/bin/env python3
"""Doxygen input filter for the public headers.

The headers document themselves with plain // comments, written to be read
in the header. This filter lets Doxygen read the same comments, line for
line (warnings keep their line numbers):

- the comment block that opens a file documents the file;
- a comment block at namespace or class level documents what follows it;
  overloads of one function right after it form a member group and share
  the comment (DISTRIBUTE_GROUP_DOC), as do the members between the
  header's own //@{ and //@} marks;
- a comment after a declaration on the same line documents that
  declaration;
- comments inside function bodies stay plain comments.
"""

import re
import sys

SCOPE_WORDS = re.compile(r"\b(class|struct|union|namespace|enum|extern)\b")
ACCESS = re.compile(r'^\s*(public|private|protected)\s*:')


def code_part(line):
    """The line without strings, character literals and // comments."""
    out = []
    i = 0
    while i < len(line):
        c = line[i]
        if c in '"\'':
            quote = c
            i += 1
            while i < len(line) and line[i] != quote:
                i += 2 if line[i] == '\\' else 1
            i += 1
            out.append(' ')
            continue
        if line.startswith('//', i):
            break
        out.append(c)
        i += 1
    return ''.join(out)


def is_comment(line):
    """A plain // comment line (not ///, and not the //@{ //@} group marks)."""
    s = line.lstrip()
    return s.startswith('//') and not s.startswith('///') and not s.startswith('//@')


NAME = re.compile(r'(operator\s*[^\s(]+|~?[A-Za-z_]\w*)\s*\(')


def declared_name(statement):
    """The function a declaration declares, or None."""
    match = NAME.search(statement)
    return match.group(1) if match else None


def main():
    lines = open(sys.argv[1], encoding='utf-8').read().split('\n')
    out = list(lines)
    n = len(lines)

    # Which lines start at namespace or class level.
    at_scope = [False] * n
    stack = []          # True for a scope brace, False for a body brace
    statement = ''
    for i, line in enumerate(lines):
        at_scope[i] = all(stack)
        code = code_part(line)
        if code.lstrip().startswith('#'):
            continue
        for c in code:
            if c == '{':
                stack.append(bool(SCOPE_WORDS.search(statement)) and '(' not in statement)
                statement = ''
            elif c == '}':
                if stack:
                    stack.pop()
                statement = ''
            elif c == ';':
                statement = ''
            else:
                statement += c
        statement += ' '

    # The opening block documents the file.
    i = 0
    while i < n and is_comment(lines[i]):
        i += 1
    if i > 0:
        for k in range(i):
            out[k] = lines[k].replace('//', '///', 1)
        out[i - 1] += ' \\file'
    start = i

    # Member groups marked in the header: //@{ ... //@}.
    # Groups do not nest: no automatic group inside a marked one.
    in_marked = [False] * n
    inside = False
    for k in range(start, n):
        mark = lines[k].strip()
        if mark in ('//@{', '//@}'):
            out[k] = lines[k].replace('//@', '///@', 1)
            inside = mark == '//@{'
        in_marked[k] = inside

    # A trailing comment documents the declaration on its line.
    for k in range(start, n):
        line = lines[k]
        if not at_scope[k] or is_comment(line) or line.lstrip().startswith('#'):
            continue
        code = code_part(line)
        rest = line[len(code):]
        if code.strip() and rest.startswith('//') and not rest.startswith('///') \
                and code.rstrip().endswith((';', ',')):
            out[k] = code + '///<' + rest[2:]

    i = start
    while i < n:
        if not (at_scope[i] and is_comment(lines[i])):
            i += 1
            continue
        first = i
        while i < n and is_comment(lines[i]):
            out[i] = lines[i].replace('//', '///', 1)
            i += 1
        # The declarations the block describes: up to a blank line, another
        # comment, an access specifier or a preprocessor line. Overloads of
        # one function right after the block share it.
        end = i
        depth = 0
        statement = ''
        names = []
        group_end = None
        while end < n and lines[end].strip() and not is_comment(lines[end]) \
                and not lines[end].lstrip().startswith('//@') \
                and not ACCESS.match(lines[end]) and not lines[end].lstrip().startswith('#'):
            code = code_part(lines[end])
            depth += code.count('{') - code.count('}')
            if depth < 0:
                break
            statement += code
            end += 1
            if depth == 0 and code.rstrip().endswith((';', '}')):
                names.append(declared_name(statement))
                statement = ''
                if names[0] is not None and names[-1] == names[0]:
                    group_end = end
                else:
                    break
        if group_end is not None and len(names) > 1 and names[-1] != names[0]:
            names.pop()
        if group_end is not None and len([x for x in names if x == names[0]]) > 1 \
                and not in_marked[first]:
            out[first] = '/** @{ */ ' + out[first]
            out[group_end - 1] += ' /** @} */'
        i = max(end, i)

    sys.stdout.write('\n'.join(out))


if __name__ == '__main__':
    main()
