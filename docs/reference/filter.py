#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""filter.py HEADER - prints a public header with its comments in the form that Doxygen reads.

The headers are written for people: a comment before a declaration documents it, and documents the declarations that
follow without a blank line too; a comment behind a member documents the member; the opening comment documents the file.
"""
import pathlib
import re
import sys

SECTION = re.compile(r'^\s*(/\*|//) ---- ')
OPENING = re.compile(r'^(\S+\.hp?p?) - (.*?)(?:\.\s|\.$)(.*)', re.S)


def comment_text(lines):
    """The text of a comment of either form, without its marks."""
    text = []
    for line in lines:
        line = re.sub(r'^\s*(/\*\*?|\*/|\*|//) ?', '', line.rstrip())
        text.append(re.sub(r'\s*\*/$', '', line))
    return '\n'.join(text).strip('\n')


def preformatted(text):
    """A paragraph that is indented by less than four spaces is a table or a list by position: a code block."""
    return '\n\n'.join(
        re.sub(r'^(?=.)', '    ', part, flags=re.M) if re.match(r' {1,3}\S', part) else part
        for part in text.split('\n\n'))


def as_doxygen(text, indent=''):
    text = escaped(preformatted(text))
    return '\n'.join([f'{indent}/**'] + [f'{indent} * {line}'.rstrip() for line in text.split('\n')] + [f'{indent} */'])


def opening(text):
    found = OPENING.match(text)
    name, brief, rest = found.groups()
    return as_doxygen(f'@file {name}\n@brief {brief}.\n\n{rest.strip()}')


def blocks(lines):
    """Splits into ('comment', lines) and ('code', [line])."""
    at = 0
    while at < len(lines):
        line, end = lines[at], at + 1
        if re.match(r'\s*/\*', line):
            while '*/' not in lines[end - 1]:
                end += 1
            whole = lines[end - 1].rstrip().endswith('*/')
            yield ('comment' if whole else 'code'), lines[at:end]
        elif re.match(r'\s*//', line):
            while end < len(lines) and re.match(r'\s*//', lines[end]):
                end += 1
            yield 'comment', lines[at:end]
        else:
            yield 'code', [line]
        at = end


def trailing(line):
    """A comment behind code documents that code."""
    line = re.sub(r'(\S\s+)/\*+<? ?(?!.*\*/.*\S)', r'\1/**< ', line)
    return re.sub(r'([;,]\s+)// ', r'\1///< ', line)


def ends_declaration(line):
    code = re.sub(r'/\*.*|//.*', '', line).rstrip()
    return code.endswith(';') or (code.lstrip().startswith('#define') and not code.endswith('\\'))


def escaped(text):
    """Words in angle brackets are not HTML."""
    return '\n'.join(line if line.startswith('    ') else re.sub(r'<(?=\w)', r'\\<', line) for line in text.split('\n'))


def is_signal_safe(following):
    """Whether the declaration after a comment carries the mark."""
    for kind, block in following:
        if kind == 'comment' or not block[0].strip():
            return False
        if 'QV_SIGNAL_SAFE' in block[0]:
            return not block[0].startswith('#define')
        if ends_declaration(block[0]):
            return False
    return False


def filtered(lines):
    out, document, first = [], None, True
    found = list(blocks(lines))
    for at, (kind, block) in enumerate(found):
        text = comment_text(block) if kind == 'comment' else ''
        if kind == 'code':
            line = block[0]
            if not line.strip() or line.lstrip().startswith(('#if', '#else', '#endif', '#include')):
                document = None
            elif document and document[1] and '/*' not in line:  # not the first after the comment
                out.append(as_doxygen(document[0]))
                document[1] = False
            if document and ends_declaration(line) and not line.startswith((' ', '}')):
                document[1] = True
            out.extend(trailing(line) for line in block)
        elif 'SPDX-License-Identifier' in text:
            out.append('')
            if '\n' in text:  # "//" lines: the opening comment follows at once
                out.append(opening(text.split('\n', 1)[1]))
                first = False
        elif SECTION.match(block[0]):
            document = None
            out.append('')
        elif first and OPENING.match(text):
            out.append(opening(text))
            first = False
        else:
            indent = re.match(r'\s*', block[0]).group()
            if is_signal_safe(found[at + 1:]):
                text += '\n@par Signals\nMay be called from a signal handler.'
            out.append(as_doxygen(text, indent))
            document = None if indent else [text, False]
    return '\n'.join(out)


print(filtered(pathlib.Path(sys.argv[1]).read_text().split('\n')))
