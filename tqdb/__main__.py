"""python -m tqdb: the tqdb command (Python 3; the package itself also runs on 2.7)."""
import sys

if __name__ == '__main__':  # importing the module (type checkers do) runs nothing
    if sys.version_info[0] < 3:
        sys.exit('tqdb: the tqdb command needs Python 3')
    from tqdb.cli import main
    sys.exit(main())
