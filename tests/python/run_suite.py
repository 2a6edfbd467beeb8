"""Runs the Python suites (Python 2.7 and 3): fails at once when a module
does not import, and when any test fails or none ran."""
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))


def main():
    for name in ('TQdefsv17_1', 'TQvindelv17_1', 'TQDBv17_1'):
        try:
            __import__(name)
        except Exception as e:  # report and fail: nothing else can run
            sys.stderr.write('cannot import %s: %r (PYTHONPATH=%s)\n'
                             % (name, e, os.environ.get('PYTHONPATH', '')))
            return 1
    sys.path.insert(0, HERE)
    suite = unittest.defaultTestLoader.discover(HERE, pattern='test*.py', top_level_dir=HERE)
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    if result.testsRun == 0:
        sys.stderr.write('no tests ran\n')
        return 1
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
