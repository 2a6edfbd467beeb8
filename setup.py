"""pip install . : builds the modules TQDBv17_1, TQvindelv17_1 and TQdefsv17_1
for the running interpreter with the project's CMake build, and installs them
with the shared library libtqdb next to them (the modules find it through
their RPATH $ORIGIN)."""
import glob
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))
MODULES = ['TQDBv17_1', 'TQvindelv17_1', 'TQdefsv17_1']
BUILD_BASE = 'build-pip'  # build/ belongs to the CMake build of `make`


class CMakeBuild(build_ext):
    def run(self):
        version = '%d.%d' % sys.version_info[:2]
        tree = os.path.abspath(os.path.join(self.build_temp, 'cmake'))
        subprocess.check_call(['cmake', '-S', ROOT, '-B', tree, '-DCMAKE_BUILD_TYPE=Release',
                               '-DTQ_BUILD_TESTS=OFF', '-DTQ_PYTHONS=' + sys.executable])
        subprocess.check_call(['cmake', '--build', tree, '-j', '2',
                               '--target', 'tq_python' + version.replace('.', '')])
        built = os.path.join(tree, 'python' + version)
        for ext in self.extensions:
            target = self.get_ext_fullpath(ext.name)
            name = os.path.basename(target)
            if not os.path.isdir(os.path.dirname(target)):
                os.makedirs(os.path.dirname(target))
            shutil.copy2(os.path.join(built, name), target)
        libdir = os.path.dirname(self.get_ext_fullpath(MODULES[0]))
        for lib in glob.glob(os.path.join(built, 'libtqdb.so*')):
            shutil.copy2(lib, libdir)


setup(
    name='tqdb-client',
    version='17.1.0',
    description='TQDB client: the Python modules TQDBv17_1, TQvindelv17_1 and TQdefsv17_1',
    ext_modules=[Extension(name, sources=[]) for name in MODULES],
    cmdclass={'build_ext': CMakeBuild},
    options={'build': {'build_base': BUILD_BASE}},
    zip_safe=False,
)
