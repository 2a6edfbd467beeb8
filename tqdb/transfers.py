"""File and backup transfers, driven to the end over one Client.

    db.upload(tqdb.FILESERV_ID_HOSTTRIGGER, 'hosts.txt', 'hosts.txt', progress=show)
    db.download(tqdb.FILESERV_ID_HOSTTRIGGER, 'hosts.txt', '/tmp/hosts.txt')
    db.backup_upload('ruleset.tqbk', 'ruleset-2026')
    db.backup_download('ruleset-2026', 'ruleset.tqbk')

An upload sends its start request, takes the transfer id from the answer,
then keeps up to WINDOW data messages on the wire ahead of their answers:
waiting for each answer before sending the next would leave the link idle
for a round trip per 31 768 bytes. Every data message's answer is checked;
the first refusal raises its ServerError and ends the upload (the appliance
drops an upload it refused, and the one the connection never finishes).

A download writes each answer's chunks as it arrives. Given a path, it
writes a temporary file beside it and renames it into place only once the
whole file has arrived, so the path never holds half a file; on failure the
temporary file is removed.

The local side may be a path or a binary file object (read(n) for an
upload, write(bytes) for a download; an object is neither closed nor
rewound). progress(done, total) is called with the bytes the appliance has
acknowledged (upload) or that have been written (download); total is None
for an upload from an object whose size cannot be found by seeking.
"""
from __future__ import absolute_import

import binascii
import collections
import os

from .errors import Error

WINDOW = 16  # data messages in flight; 16 x 31 768 bytes keeps a LAN link busy

# The two families of transfers: the Session methods each step uses, and
# the arguments of the start request before the local input.
Family = collections.namedtuple('Family', 'what start next start_handle fetch fetch_handle')
FILES = Family('file', 'fileserve_upload', 'fileserve_upload_continue',
               'fileserve_upload_handle_data', 'fileserv_download', 'fileserv_download_handle')
BACKUPS = Family('backup', 'backup_upload', 'backup_upload_continue', 'backup_upload_handle',
                 'backup_download', 'backup_download_handle')

_replace = getattr(os, 'replace', os.rename)


class _Reader(object):
    """The upload's input as the session reads it, counting the bytes."""

    __slots__ = ('src', 'count')

    def __init__(self, src):
        self.src, self.count = src, 0

    def read(self, n):
        data = self.src.read(n)
        self.count += len(data)
        return data


class _Writer(object):
    """The download's output as the decoder writes it, counting the bytes."""

    __slots__ = ('dst', 'count')

    def __init__(self, dst):
        self.dst, self.count = dst, 0

    def write(self, data):
        self.dst.write(data)
        self.count += len(data)


def _size_left(f):
    """Bytes from f's position to its end, or None when f cannot seek."""
    try:
        here = f.tell()
        f.seek(0, 2)
        end = f.tell()
        f.seek(here)
        return end - here
    except (AttributeError, IOError, OSError, ValueError):
        return None


def upload(db, family, target, source, progress=None, window=WINDOW):
    """Sends source (a path or a binary file object) as the upload whose
    start request takes the arguments target; the number of bytes sent."""
    opened = not hasattr(source, 'read')
    src = open(source, 'rb') if opened else source
    try:
        return _upload(db, family, target, src, progress, max(1, window))
    finally:
        if opened:
            src.close()


def _upload(db, family, target, src, progress, window):
    total, reader, name = _size_left(src), _Reader(src), target[-1]
    up = db.send(family.start, *(target + (reader,)))
    session = db.session
    if not getattr(session, family.start_handle)(db.reply(up.cid), up):
        raise Error('the %s upload of %r got no transfer id' % (family.what, name))
    step = getattr(session, family.next)
    inflight = collections.deque()  # (cid, bytes sent up to and with it; None: the finish)
    reported = None
    try:
        while True:
            while len(inflight) < window and up.state != 4:
                before = reader.count
                cid = step(up)
                if up.failed or not cid:
                    raise Error('the %s upload of %r failed in state %d'
                                % (family.what, name, up.state))
                # A data message that found the input already at its end
                # holds no chunk: it is never sent and never answered.
                if up.state == 4 or reader.count > before:
                    inflight.append((db.track(cid), None if up.state == 4 else reader.count))
            if not inflight:
                break
            cid, done = inflight[0]
            db.reply(cid)
            inflight.popleft()
            if progress is not None and (done is not None or reported is None):
                reported = reader.count if done is None else done
                progress(reported, total)
    finally:
        for cid, _ in inflight:
            db.forget(cid)
    return reader.count


def download(db, family, source, dest, progress=None):
    """Fetches the file the download request's arguments source name into
    dest (a path or a binary file object); the number of bytes written."""
    if hasattr(dest, 'write'):
        return _download(db, family, source, _Writer(dest), progress)
    folder, base = os.path.split(os.path.abspath(dest))
    temp = os.path.join(folder, '.%s.%d.%s.part'
                        % (base, os.getpid(), binascii.hexlify(os.urandom(4)).decode('ascii')))
    fd = os.open(temp, os.O_WRONLY | os.O_CREAT | os.O_EXCL | getattr(os, 'O_BINARY', 0), 0o666)
    try:
        with os.fdopen(fd, 'wb') as out:
            n = _download(db, family, source, _Writer(out), progress)
            out.flush()
            os.fsync(out.fileno())
        _replace(temp, dest)
        return n
    except BaseException:
        os.unlink(temp)
        raise


def _download(db, family, source, out, progress):
    cid = db.send(family.fetch, *source)
    decode = getattr(db.session, family.fetch_handle)
    size = 0
    msgs = db.replies(cid)
    try:
        for msg in msgs:
            ok, size = decode(msg, out, size)
            if not ok:
                raise Error('the %s download of %r: a reply was cut short'
                            % (family.what, source[-1]))
            if progress is not None:
                progress(out.count, size)
    finally:
        msgs.close()
    if out.count != size:
        raise Error('the %s download of %r ended after %d of its %d bytes'
                    % (family.what, source[-1], out.count, size))
    return out.count
