"""TQDB client for Python: a blocking client, an asyncio client and the tqdb
command over the modules TQDBv17_1 and TQvindelv17_1.

    import tqdb
    with tqdb.connect('10.0.0.1', user='admin', password='secret') as db:
        for obj in db.object_list(tqdb.OBJECT_TYPE_NETOBJECT):
            print(obj['name'])

The module's integer constants (RESOURCE_*, OBJECT_TYPE_*, MSG_TYPE_*, the
log levels, ...) are attributes of this package too.
"""
from __future__ import absolute_import

import numbers as _numbers

import TQDBv17_1 as _tq

from .client import Client, Pending, Transaction, connect, shared_key, DEFAULT_PORT
from .errors import (AuthenticationError, ConnectionLost, CriticalError, Error, LockedError,
                     ServerError, Timeout, VersionError)

# The module's constants are its upper-case integer attributes.
globals().update((_n, _v) for _n, _v in vars(_tq).items()
                 if _n.isupper() and isinstance(_v, _numbers.Integral) and not isinstance(_v, bool))

__all__ = ['connect', 'Client', 'Pending', 'Transaction', 'shared_key', 'DEFAULT_PORT',
           'Error', 'ServerError', 'CriticalError', 'LockedError', 'AuthenticationError',
           'VersionError', 'ConnectionLost', 'Timeout']
