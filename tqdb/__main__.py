"""python -m tqdb: the tqdb command (Python 3; the package itself also runs on 2.7)."""
import sys

if sys.version_info[0] < 3:
    sys.exit('tqdb: the tqdb command needs Python 3')

from tqdb.cli import main  # noqa: E402 - after the version check

sys.exit(main())
