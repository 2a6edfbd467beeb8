"""Every Python example of docs/python.md, run against the simulator, by the
rules the guide gives its readers for its code blocks: one test per "## "
section, whose blocks run in order in one namespace with a simulator and a
scratch directory of its own; a ```text block is the output of the block before."""
import __future__
import collections
import io
import os
import re
import shutil
import sys
import tempfile
import unittest

import tqdb
from simhelper import Simulator

GUIDE = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                     '..', '..', 'docs', 'python.md'))
FENCE = re.compile(r'^```([^\n]*)\n(.*?)^```$', re.S | re.M)


def runs_here(words):
    if 'python' not in words:
        return False
    if 'asyncio' in words:
        return sys.version_info >= (3, 8)
    return sys.version_info[0] >= 3 or 'py2' in words


def sections(text):
    """[(heading, [(line, code, expected output or None)])] of the sections
    that have a Python block, with the blocks this interpreter runs."""
    heads = [(-1, 'introduction')] + [(m.start(), m.group(1).strip())
                                      for m in re.finditer(r'^## (.*)$', text, re.M)]
    blocks = [(m.start(), m.group(1).split(), m.group(2)) for m in FENCE.finditer(text)]
    found = collections.OrderedDict()
    for i, (at, words, code) in enumerate(blocks):
        heading = [h for start, h in heads if start < at][-1]
        runs = found.setdefault(heading, []) if 'python' in words else None
        if runs is not None and runs_here(words):
            after = blocks[i + 1] if i + 1 < len(blocks) else (0, [], None)
            runs.append((text.count('\n', 0, at) + 2, code,
                         after[2] if after[1] == ['text'] else None))
    return list(found.items())


class Output(object):
    def __init__(self):
        self.parts = []

    def write(self, text):
        self.parts.append(text)

    def flush(self):
        pass


class GuideTest(unittest.TestCase):
    def test_every_block_is_of_a_known_kind(self):
        with io.open(GUIDE, encoding='utf-8') as f:
            kinds = set(m.group(1).strip() for m in FENCE.finditer(f.read()))
        self.assertEqual(kinds - set(['python', 'python py2', 'python asyncio', 'sh', 'text']),
                         set())

    def run_section(self, blocks):
        if not blocks:
            self.skipTest('no example of this section runs on Python %d.%d'
                          % sys.version_info[:2])
        sim = Simulator()
        here, scratch = os.getcwd(), tempfile.mkdtemp()
        names = {'HOST': sim.host, 'PORT': sim.port, '__name__': '__guide__'}
        try:
            os.chdir(scratch)
            for line, code, expected in blocks:
                out, stdout = Output(), sys.stdout
                sys.stdout = out
                try:
                    # padded so that a traceback names the guide's own lines
                    exec(compile('\n' * (line - 1) + code, GUIDE, 'exec',
                                 __future__.print_function.compiler_flag, True), names)
                finally:
                    sys.stdout = stdout
                if expected is not None:
                    self.assertEqual(''.join(out.parts), expected, 'the block at line %d' % line)
        finally:
            os.chdir(here)
            shutil.rmtree(scratch)
            for value in list(names.values()):  # the clients a section left open
                if isinstance(value, tqdb.Client):
                    value.close()
            names.clear()
            sim.stop()


def _test(blocks):
    return lambda self: self.run_section(blocks)


with io.open(GUIDE, encoding='utf-8') as _f:
    for _n, (_heading, _blocks) in enumerate(sections(_f.read())):
        setattr(GuideTest, 'test_%02d_%s' % (_n, re.sub(r'\W+', '_', _heading.lower()).strip('_')),
                _test(_blocks))
