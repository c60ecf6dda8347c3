#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""manpages.py XML VERSION OUT - makes the manual pages of section 3 from Doxygen's XML of the public headers.

Each header has a page with its model, a list of its functions, and its variables. Each function has a page. The name of
a variable leads to its header's page.
"""
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ET


def roff(text):
    text = text.replace('\\', '\\e').replace('-', '\\-')
    return re.sub(r"^([.'])", r'\\&\1', text, flags=re.M)


FONTS = {'computeroutput': 'B', 'bold': 'B', 'emphasis': 'I', 'parametername': 'I'}
CHARACTERS = {'ndash': '\\(en', 'mdash': '\\(em', 'sp': ' ', 'lsquo': '\\(oq', 'rsquo': '\\(cq', 'linebreak': ' '}
BLOCKS = ('parameterlist', 'simplesect', 'verbatim', 'preformatted', 'itemizedlist', 'orderedlist', 'table')


def pieces(node):
    """The content of a node in its order: strings with fonts, and elements that are blocks."""
    yield roff(node.text or '')
    for child in node:
        if child.tag in BLOCKS:
            yield child
        elif child.tag in CHARACTERS:
            yield CHARACTERS[child.tag]
        elif child.tag in FONTS:
            yield f'\\f{FONTS[child.tag]}{inline(child)}\\fR'
        else:
            yield inline(child, strip=False)
        yield roff(child.tail or '')


def inline(node, strip=True):
    """The text of a node without the blocks in it, as one line."""
    text = re.sub(r'\s+', ' ', ''.join(piece for piece in pieces(node) if isinstance(piece, str)))
    return text.strip() if strip else text


def verbatim(node):
    code = textwrap.dedent(''.join(node.itertext()).strip('\n'))
    return f'.PP\n.in +4n\n.EX\n{roff(code)}\n.EE\n.in'


def table(node):
    rows = [' \\(en '.join(inline(entry) for entry in row.iter('para')) for row in node.findall('row')]
    return '\n'.join(f'.IP \\(bu 2\n{row}' for row in rows)


def block(node):
    if node.tag in ('verbatim', 'preformatted'):
        return verbatim(node)
    if node.tag in ('itemizedlist', 'orderedlist'):
        return '\n'.join(f'.IP \\(bu 2\n{inline(item.find("para"))}' for item in node.findall('listitem'))
    if node.tag == 'table':
        return table(node)
    if node.tag == 'simplesect' and node.get('kind') == 'par':
        return '\n'.join(f'.PP\n{inline(para)}' for para in node.findall('para'))
    return ''  # parameters and results have sections


def description(node):
    """The paragraphs, code blocks, lists and tables of a description."""
    out, text = [], ''

    def flush():
        nonlocal text
        if text.strip():
            out.append('.PP\n' + re.sub(r'\s+', ' ', text).strip())
        text = ''

    for para in node.findall('para'):
        for piece in pieces(para):
            if isinstance(piece, str):
                text += piece
            else:
                flush()
                out.append(block(piece))
        flush()
    return '\n'.join(part for part in out if part)


def head(name, version):
    return f'.\\" Made from the public headers.\n.TH {name.upper()} 3 "" "libcommon {version}" "libcommon"'


def summary(node):
    text = inline(node.find('briefdescription')) or 'part of libcommon'
    return text.rstrip('.')


def synopsis(function, header):
    arguments = [
        (inline(p.find('type')) + ' ' + (p.findtext('declname') or '') + (p.findtext('array') or '')).strip()
        for p in function.findall('param')
    ]
    # A pointer to a function has its parameters behind the name: the text of the declaration is the better source.
    declared = (function.findtext('definition') or '') + (function.findtext('argsstring') or '')
    declared = re.sub(r'\s+', ' ', declared).replace('* ', '*')
    if len(declared) > 76 and arguments:
        opening, rest = declared.split('(', 1)
        pad = ' ' * 4
        declared = f'{opening}(\n' + '\n'.join(textwrap.wrap(rest, 72, initial_indent=pad, subsequent_indent=pad))
    return f'.nf\n.B #include <{header}>\n.PP\n{roff(declared)};\n.fi'


def function_page(function, header, version):
    name = function.findtext('name')
    details = function.find('detaileddescription')
    out = [head(name, version), '.SH NAME', f'{name} \\- {summary(function)} (libcommon)']
    out += ['.SH SYNOPSIS', synopsis(function, header), '.SH DESCRIPTION', description(function.find('briefdescription')),
            description(details)]
    parameters = [item for kind in details.iter('parameterlist') for item in kind.findall('parameteritem')]
    if parameters:
        out.append('.SH PARAMETERS')
    for item in parameters:
        names = ', '.join(n.text or '' for n in item.iter('parametername'))
        out += ['.TP', f'.I {roff(names)}', inline(item.find('parameterdescription/para')) or '\\&']
    results = [sect for sect in details.iter('simplesect') if sect.get('kind') == 'return']
    if results:
        out.append('.SH RETURN VALUE')
        out += [f'.PP\n{inline(para)}' for result in results for para in result.findall('para')]
    out += ['.SH SEE ALSO', f'.BR {header} (3),', '.BR libcommon (7)']
    return '\n'.join(part for part in out if part) + '\n'


def tagged(entries):
    """A list of (name, text); consecutive names with one text share it."""
    out = []
    for name, text in entries:
        if out and text == out[-1]:
            out[-1:-1] = ['.TQ', name]
        else:
            out += ['.TP', name, text]
    return out


def variable_text(variable):
    brief, details = (description(variable.find(f'{kind}description')) for kind in ('brief', 'detailed'))
    return (brief.removeprefix('.PP\n') + '\n' + details.replace('.PP', '.IP')).strip() or '\\&'


def variable_declaration(variable):
    arguments = variable.findtext('argsstring') or ''
    # A pointer to a function has its parameters in the definition already.
    declared = variable.findtext('definition') + ('' if arguments.startswith(')') else arguments)
    return f'.B {roff(declared.replace("* ", "*"))}'


def header_page(compound, functions, variables, version):
    name = compound.findtext('compoundname')
    out = [head(name, version), '.SH NAME', f'{name} \\- {summary(compound)} (libcommon)']
    out += ['.SH SYNOPSIS', f'.nf\n.B #include <{name}>\n.fi', '.SH DESCRIPTION', description(compound.find('detaileddescription'))]
    if functions:
        out += ['.SH FUNCTIONS'] + tagged(
            (f'.BR {roff(f.findtext("name"))} (3)', inline(f.find('briefdescription')) or '\\&') for f in functions)
    if variables:
        out += ['.SH VARIABLES'] + tagged((variable_declaration(v), variable_text(v)) for v in variables)
    out += ['.SH SEE ALSO', '.BR libcommon (7)']
    return '\n'.join(part for part in out if part) + '\n'


def main(xml, version, out):
    for path in sorted(pathlib.Path(xml).glob('*_8h.xml')):
        compound = ET.parse(path).getroot().find('compounddef')
        header = compound.findtext('compoundname')
        functions = [m for m in compound.iter('memberdef') if m.get('kind') == 'function']
        variables = [m for m in compound.iter('memberdef') if m.get('kind') == 'variable']
        (out / f'{header}.3').write_text(header_page(compound, functions, variables, version))
        for variable in variables:
            (out / f'{variable.findtext("name")}.3').write_text(f'.so man3/{header}.3\n')
        for function in functions:
            (out / f'{function.findtext("name")}.3').write_text(function_page(function, header, version))


main(sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3]))
