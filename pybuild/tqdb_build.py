"""The build backend behind `pip install .` (PEP 517, named in pyproject.toml).

It needs nothing but the standard library and CMake: pyenv's interpreters come
without `wheel`, 3.12 and later without setuptools, and an appliance's
management host often has no package index to fetch them from. It drives the
project's one CMake build for the running interpreter, then writes the wheel
itself:

    TQDBv17_1<ext>, TQvindelv17_1<ext>, TQdefsv17_1<ext>   the modules
    libtqdb.so.17                next to them (their RPATH is $ORIGIN)
    tqdb/                        the package, as it is in the tree
    tqdb/bin/tqdbsim             the simulator, for `tqdb sim`; its RPATH
                                 $ORIGIN/../.. finds the same libtqdb
    <module>-stubs/__init__.pyi  the modules' type stubs (stubs/<module>.pyi)

The CMake tree is build-pip/ in the source tree (TQDB_BUILD_DIR or the
config setting build-dir choose another), kept between installs so that
installing for a second interpreter only builds its modules.

Python 2.7's own pip (19.2) ignores backend-path and so cannot import this
backend from the source tree; run it without build isolation (which would
replace PYTHONPATH) and with this directory on PYTHONPATH:
    PYTHONPATH=$PWD/pybuild python2.7 -m pip install --no-build-isolation --target DIR .
Run as a script, this file builds a wheel (or an sdist) without pip:
    python pybuild/tqdb_build.py [wheel|sdist] [OUTDIR]
"""
from __future__ import print_function

import base64
import hashlib
import io
import multiprocessing
import os
import platform
import re
import shutil
import stat
import subprocess
import sys
import sysconfig
import tarfile
import time
import zipfile

NAME = 'tqdb-client'
MODULES = ('TQDBv17_1', 'TQvindelv17_1', 'TQdefsv17_1')
PACKAGE = 'tqdb'
SUMMARY = 'TQDB client: the tqdb package over the modules TQDBv17_1, TQvindelv17_1 and TQdefsv17_1'
# The modules are built for 2.7 and 3.8+ only.
REQUIRES_PYTHON = '>=2.7, ' + ', '.join('!=3.%d.*' % minor for minor in range(8))
ENTRY_POINTS = '[console_scripts]\ntqdb = tqdb.cli:main\n'

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
RPATH_INCLUDE = os.path.join(ROOT, 'pybuild', 'wheel_rpath.cmake')
SKIP_DIRS = ('__pycache__',)
SKIP_SUFFIXES = ('.pyc', '.pyo')
# Every member dated alike (zip dates start in 1980), so that two builds of
# one tree give one archive.
EPOCH_SECONDS = max(int(os.environ.get('SOURCE_DATE_EPOCH', 0)), 315532800)
EPOCH = time.gmtime(EPOCH_SECONDS)[:6]


# --- names ---------------------------------------------------------------------------

def _version():
    with io.open(os.path.join(ROOT, 'CMakeLists.txt'), encoding='utf-8') as f:
        found = re.search(r'project\(\s*tqdb\s+VERSION\s+([0-9.]+)', f.read())
    if not found:
        raise RuntimeError('CMakeLists.txt: no project(tqdb VERSION ...)')
    return found.group(1)


def _dist_name():
    return '%s-%s' % (re.sub(r'[-_.]+', '_', NAME), _version())


def _abi_tag():
    # Python 3 names its ABI (cpython-38-..., cpython-313t-...); Python 2 is
    # told apart by its build flags.
    soabi = sysconfig.get_config_var('SOABI')
    if soabi and soabi.startswith('cpython-'):
        return 'cp' + soabi.split('-')[1]
    flags = ''
    if sysconfig.get_config_var('Py_DEBUG'):
        flags += 'd'
    if sysconfig.get_config_var('WITH_PYMALLOC'):
        flags += 'm'
    if sys.version_info[0] == 2 and sys.maxunicode == 0x10FFFF:
        flags += 'u'
    return 'cp%d%d%s' % (sys.version_info[0], sys.version_info[1], flags)


def _wheel_tag():
    if platform.python_implementation() != 'CPython':
        raise RuntimeError('the modules are built for CPython only')
    plat = re.sub(r'[-.]', '_', sysconfig.get_platform())
    return 'cp%d%d-%s-%s' % (sys.version_info[0], sys.version_info[1], _abi_tag(), plat)


def _metadata():
    return ('Metadata-Version: 2.1\nName: %s\nVersion: %s\nSummary: %s\nRequires-Python: %s\n'
            % (NAME, _version(), SUMMARY, REQUIRES_PYTHON))


def _dist_info_files():
    """(name, text) of every dist-info file but RECORD."""
    wheel = ('Wheel-Version: 1.0\nGenerator: tqdb_build %s\nRoot-Is-Purelib: false\nTag: %s\n'
             % (_version(), _wheel_tag()))
    return [('METADATA', _metadata()), ('WHEEL', wheel), ('entry_points.txt', ENTRY_POINTS),
            ('top_level.txt', '\n'.join(MODULES + (PACKAGE,)) + '\n')]


# --- the CMake build -----------------------------------------------------------------

def _build_dir(config_settings):
    chosen = (config_settings or {}).get('build-dir') or os.environ.get('TQDB_BUILD_DIR')
    return os.path.abspath(chosen or os.path.join(ROOT, 'build-pip'))


def _forget_moved_tree(build_dir):
    # A cache written for another copy of the sources (the tree moved, or an
    # sdist unpacked elsewhere) makes CMake refuse to configure.
    cache = os.path.join(build_dir, 'CMakeCache.txt')
    if not os.path.exists(cache):
        return
    with io.open(cache, encoding='utf-8', errors='replace') as f:
        home = re.search(r'^CMAKE_HOME_DIRECTORY:INTERNAL=(.*)$', f.read(), re.M)
    if home and os.path.realpath(home.group(1)) != os.path.realpath(ROOT):
        os.remove(cache)
        shutil.rmtree(os.path.join(build_dir, 'CMakeFiles'), ignore_errors=True)


def _cmake(args):
    print('tqdb_build: cmake ' + ' '.join(args), file=sys.stderr)
    sys.stderr.flush()
    # The build's output goes to stderr: pip reads our stdout for nothing, but
    # shows stderr when the build fails.
    subprocess.check_call(['cmake'] + args, stdout=sys.stderr)


def _build(build_dir):
    """Builds the modules for the running interpreter and the simulator;
    returns (modules' directory, simulator)."""
    version = '%d.%d' % sys.version_info[:2]
    _forget_moved_tree(build_dir)
    _cmake(['-S', ROOT, '-B', build_dir, '-DCMAKE_BUILD_TYPE=Release', '-DTQ_BUILD_TESTS=OFF',
            '-DTQ_PYTHONS=' + sys.executable, '-DCMAKE_PROJECT_INCLUDE=' + RPATH_INCLUDE])
    jobs = os.environ.get('CMAKE_BUILD_PARALLEL_LEVEL') or str(multiprocessing.cpu_count())
    _cmake(['--build', build_dir, '-j', jobs,
            '--target', 'tq_python' + version.replace('.', ''), 'tqdbsim'])
    return os.path.join(build_dir, 'python' + version), os.path.join(build_dir, 'bin', 'tqdbsim')


def _tree_files(top, prefix):
    """(archive name, path) of every file under ROOT/top, prefix/relative name."""
    found = []
    for here, dirs, files in os.walk(os.path.join(ROOT, top)):
        dirs[:] = sorted(d for d in dirs if d not in SKIP_DIRS)
        for name in sorted(files):
            if not name.endswith(SKIP_SUFFIXES):
                path = os.path.join(here, name)
                rel = os.path.relpath(path, os.path.join(ROOT, top)).replace(os.sep, '/')
                found.append((prefix + rel, path))
    return found


def _stub_files():
    # A stub next to a single-file module is not looked at by type checkers
    # once installed; a <module>-stubs package is.
    return [(m + '-stubs/__init__.pyi', os.path.join(ROOT, 'stubs', m + '.pyi'))
            for m in MODULES if os.path.isfile(os.path.join(ROOT, 'stubs', m + '.pyi'))]


def _wheel_contents(build_dir):
    moddir, sim = _build(build_dir)
    ext = sysconfig.get_config_var('EXT_SUFFIX') or sysconfig.get_config_var('SO')
    contents = [(m + ext, os.path.join(moddir, m + ext)) for m in MODULES]
    contents += [(n, os.path.join(moddir, n)) for n in sorted(os.listdir(moddir))
                 if n.startswith('libtqdb.so')]
    contents += [f for f in _tree_files(PACKAGE, PACKAGE + '/') if not f[0].startswith('tqdb/bin/')]
    contents.append(('tqdb/bin/tqdbsim', sim))
    return contents + _stub_files()


# --- the archives ----------------------------------------------------------------------

def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b'=')
    return '%s,sha256=%s,%d\n' % (name, digest.decode('ascii'), len(data))


def _zip_add(archive, name, data, mode):
    info = zipfile.ZipInfo(name, date_time=EPOCH)
    info.external_attr = (stat.S_IFREG | mode) << 16
    info.compress_type = zipfile.ZIP_DEFLATED
    archive.writestr(info, data)


def _write_wheel(path, contents):
    dist_info = _dist_name() + '.dist-info/'
    record = []
    with zipfile.ZipFile(path, 'w') as archive:
        for name, src in contents:
            with open(src, 'rb') as f:
                data = f.read()
            executable = os.stat(src).st_mode & stat.S_IXUSR
            _zip_add(archive, name, data, 0o755 if executable else 0o644)
            record.append(_record_line(name, data))
        for name, text in _dist_info_files():
            data = text.encode('utf-8')
            _zip_add(archive, dist_info + name, data, 0o644)
            record.append(_record_line(dist_info + name, data))
        record.append(dist_info + 'RECORD,,\n')
        _zip_add(archive, dist_info + 'RECORD', ''.join(record).encode('utf-8'), 0o644)


def _sdist_files():
    """The tree as git holds it (without git: all but build trees and caches)."""
    if os.path.isdir(os.path.join(ROOT, '.git')):
        out = subprocess.check_output(['git', 'ls-files', '-z', '--cached', '--others',
                                       '--exclude-standard'], cwd=ROOT)
        names = sorted(n for n in out.decode('utf-8').split('\0') if n)
        return [n for n in names if os.path.isfile(os.path.join(ROOT, n))]
    names = []
    for here, dirs, files in os.walk(ROOT):
        top = here == ROOT
        dirs[:] = sorted(d for d in dirs if d not in SKIP_DIRS and
                         not (top and d.startswith(('build', '.git', 'dist'))))
        names += [os.path.relpath(os.path.join(here, f), ROOT).replace(os.sep, '/')
                  for f in sorted(files) if not f.endswith(SKIP_SUFFIXES)]
    return names


# --- PEP 517 hooks ----------------------------------------------------------------------

def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    dist_info = _dist_name() + '.dist-info'
    target = os.path.join(metadata_directory, dist_info)
    if not os.path.isdir(target):
        os.makedirs(target)
    for name, text in _dist_info_files():
        with open(os.path.join(target, name), 'wb') as f:
            f.write(text.encode('utf-8'))
    return dist_info


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = '%s-%s.whl' % (_dist_name(), _wheel_tag())
    contents = _wheel_contents(_build_dir(config_settings))
    if not os.path.isdir(wheel_directory):
        os.makedirs(wheel_directory)
    _write_wheel(os.path.join(wheel_directory, name), contents)
    return name


def build_sdist(sdist_directory, config_settings=None):
    base = _dist_name()
    name = base + '.tar.gz'
    if not os.path.isdir(sdist_directory):
        os.makedirs(sdist_directory)
    with tarfile.open(os.path.join(sdist_directory, name), 'w:gz', format=tarfile.PAX_FORMAT) as tar:
        pkg_info = _metadata().encode('utf-8')
        info = tarfile.TarInfo(base + '/PKG-INFO')
        info.size, info.mode, info.mtime = len(pkg_info), 0o644, EPOCH_SECONDS
        tar.addfile(info, io.BytesIO(pkg_info))
        for rel in _sdist_files():
            tar.add(os.path.join(ROOT, rel), base + '/' + rel, recursive=False)
    return name


if __name__ == '__main__':
    what = sys.argv[1] if len(sys.argv) > 1 else 'wheel'
    outdir = sys.argv[2] if len(sys.argv) > 2 else os.path.join(ROOT, 'dist')
    if what not in ('wheel', 'sdist'):
        sys.exit('usage: %s [wheel|sdist] [OUTDIR]' % sys.argv[0])
    built = (build_wheel if what == 'wheel' else build_sdist)(outdir)
    print(os.path.join(outdir, built))
