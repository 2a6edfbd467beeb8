"""The type stubs in stubs/ against the modules: mypy's stubtest (where the
system python3, which has mypy, is the interpreter under test), and every
Session method called with the stub's parameter names, all of them and then
each left out in turn, which must fail exactly for the required ones."""
import io
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import TQDBv17_1 as tq

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
STUBS = os.path.join(ROOT, 'stubs')
SYSTEM_PYTHON = '/usr/bin/python3'
# What the argument parsers say about the arguments themselves, as opposed
# to the values (a dummy value may well be refused).
ARG_ERROR = re.compile(r'missing required argument|invalid keyword argument|unexpected keyword'
                       r'|takes (at most|no|exactly)|given by name|positional argument')


@unittest.skipIf(sys.version_info < (3, 8), 'stubs are read with Python 3')
class StubTest(unittest.TestCase):
    def test_stubtest(self):
        try:
            system = subprocess.check_output([SYSTEM_PYTHON, '-c', 'import sys; print(sys.version_info[:2])'])
        except (OSError, subprocess.CalledProcessError):
            system = b''
        if system.decode().strip() != str(sys.version_info[:2]):
            self.skipTest('the modules under test are not built for %s' % SYSTEM_PYTHON)
        have = subprocess.call([SYSTEM_PYTHON, '-c', 'import mypy.stubtest'],
                               stderr=subprocess.DEVNULL) == 0
        if not have and not os.environ.get('CI'):
            self.skipTest('mypy is not installed (Debian package mypy)')
        self.assertTrue(have, 'mypy is not installed (Debian package mypy)')
        scratch = tempfile.mkdtemp()  # mypy leaves its cache in the working directory
        self.addCleanup(shutil.rmtree, scratch)
        # The tqdb package's stubs sit beside its sources.
        env = dict(os.environ, MYPYPATH=os.pathsep.join([STUBS, ROOT]),
                   PYTHONPATH=os.pathsep.join(filter(None, [os.path.dirname(tq.__file__), ROOT,
                                                            os.environ.get('PYTHONPATH')])))
        proc = subprocess.Popen([SYSTEM_PYTHON, '-m', 'mypy.stubtest', '--concise',
                                 '--allowlist', os.path.join(STUBS, 'allowlist.txt'),
                                 'TQDBv17_1', 'TQvindelv17_1', 'TQdefsv17_1', 'tqdb'],
                                env=env, cwd=scratch, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)
        out = proc.communicate()[0].decode()
        self.assertEqual(proc.returncode, 0, out)


def dummy(annotation):
    """A value of the annotated type that the method at least parses."""
    if annotation.endswith('| None'):
        return None
    named = {'int': 0, 'object': 0, '_Text': '', '_Input': '', '_BinaryOut': io.BytesIO(),
             '_ItemDict': {}, '_Limits': {}}
    if annotation in named:
        return named[annotation]
    if annotation.startswith(('Mapping', 'dict')):
        return {}
    if annotation.startswith(('Sequence', 'Iterable')):
        return []
    return getattr(tq, annotation)()  # TQMessage, TQBackup, a list class


@unittest.skipIf(sys.version_info < (3, 8), 'stubs are read with Python 3')
class SessionSignatureTest(unittest.TestCase):
    def session_stubs(self):
        """(method, [(parameter, annotation, required), ...]) of the stub's Session."""
        import ast
        with io.open(os.path.join(STUBS, 'TQDBv17_1.pyi'), encoding='utf-8') as f:
            source = f.read()
        tree = ast.parse(source)
        cls = next(n for n in tree.body if isinstance(n, ast.ClassDef) and n.name == 'Session')
        for fn in cls.body:
            args = fn.args.args[1:]
            required = len(args) - len(fn.args.defaults)
            yield fn.name, [(a.arg, ast.get_source_segment(source, a.annotation), i < required)
                            for i, a in enumerate(args)]

    def test_generated_stub_is_current(self):
        sys.path.insert(0, STUBS)
        try:
            import gen_stubs
        finally:
            sys.path.remove(STUBS)
        text = gen_stubs.render()
        # The tqdb clients' request methods and constants are written from it.
        for path, want in [(gen_stubs.OUT, text)] + sorted(gen_stubs.render_tqdb(text).items()):
            with io.open(path, encoding='utf-8') as f:
                self.assertEqual(f.read(), want, '%s is stale: run stubs/gen_stubs.py' % path)

    def call(self, name, kwargs, any_type_error=False):
        try:
            getattr(tq.Session(), name)(**kwargs)
        except TypeError as e:
            if any_type_error or ARG_ERROR.search(str(e)):
                return str(e)
        except Exception:
            pass  # a value the request refuses (an empty item dict, no such file)
        return None

    def test_names_and_required_arguments(self):
        stubs = dict(self.session_stubs())
        self.assertEqual(sorted(stubs), sorted(n for n in vars(tq.Session) if n[:2] != '__'))
        wrong = []
        for name, params in sorted(stubs.items()):
            full = dict((p, dummy(t)) for p, t, _ in params)
            error = self.call(name, full, any_type_error=True)
            if error:
                wrong.append('%s: %s' % (name, error))
            for p, _, required in params:
                error = self.call(name, dict((k, v) for k, v in full.items() if k != p))
                if bool(error) != required:
                    wrong.append('%s without %s: %s' % (name, p, error or 'accepted'))
        self.assertEqual(wrong, [])
