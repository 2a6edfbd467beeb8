#!/usr/bin/env python
"""Administration of the appliance (Python 2.7 and 3).

    python admin.py HOST PORT [USER PASSWORD]

Adds a user with an SSH public key in one transaction on the users and
checks that the new account can log in from 127.0.0.1; uploads a generated
file of 300 KB to the host trigger area with a progress line, downloads it
back and compares it byte for byte, then removes it; dumps a backup of the
ruleset and lists the backups; posts an entry to the diagnostic log and
lists the log. Exits non-zero when the appliance refuses a step.

When the user name is taken already (a second run against the same
appliance), the new account gets a suffix such as "-2".
"""
from __future__ import division, print_function

import base64
import io
import os
import struct
import sys
import time

import TQDBv17_1 as tq
from quickstart import Refused, Script, open_session

AREA = tq.FILESERV_ID_HOSTTRIGGER  # writable and downloadable
FILE_NAME = 'admin-example.bin'
# Not a multiple of 31 768: a file that fills its last data message exactly
# is followed by one more id for a message that held nothing and was never
# sent, which no answer would come for.
FILE_SIZE = 300 * 1024
WINDOW = 8  # upload data messages sent ahead of their answers
SEVERITIES = {tq.SYSDIAG_LOG_SEVERITY_INFO: 'info', tq.SYSDIAG_LOG_SEVERITY_WARNING: 'warning',
              tq.SYSDIAG_LOG_SEVERITY_CRITICAL: 'critical'}


# --- users ----------------------------------------------------------------------------

def public_key(comment):
    """An ssh-ed25519 public key line with fresh key data."""
    blob = struct.pack('>I', 11) + b'ssh-ed25519' + struct.pack('>I', 32) + os.urandom(32)
    return 'ssh-ed25519 %s %s' % (base64.b64encode(blob).decode('ascii'), comment)


def free_name(taken, base):
    n, name = 1, base
    while name in taken:
        n += 1
        name = '%s-%d' % (base, n)
    return name


def add_user(adm):
    """A read-only account for the ruleset and the statistics, with a key."""
    s = adm.s
    taken = set(u['name'] for u in adm.listing(s.user_list(), s.user_list_handle, 'user_list'))
    name, password = free_name(taken, 'reporter'), 'example-%d' % os.getpid()
    readbm = (1 << tq.RESOURCE_RULESET) | (1 << tq.RESOURCE_STATREADER)
    adm.ask(s.resource_begin(tq.RESOURCE_USERS), 'resource_begin (users)')
    try:
        uid = s.user_add_handle(adm.ask(
            s.user_add(name, password, readbm, 0, 0, 3600, 0, '127.0.0.1, 10.0.0.0/8'),
            'user_add %r' % name))
        if not uid:
            raise Refused('user_add %r: the reply carries no id' % name)
        adm.ask(s.user_pubkey_add(name, public_key(name + '@example')), 'user_pubkey_add')
        seqno = adm.conn.handle.commit_handle(
            adm.ask(s.resource_commit('admin example: add %s' % name), 'resource_commit'))[0]
    except Refused:
        try:
            adm.conn.call(s.resource_rollback(), 'resource_rollback')
        except (IOError, RuntimeError):
            pass  # the transaction goes anyway when the connection closes
        raise
    user = [u for u in adm.listing(s.user_list(), s.user_list_handle, 'user_list')
            if u['id'] == uid][0]
    keys = adm.listing(s.user_pubkey_list(name), s.user_pubkey_list_handle, 'user_pubkey_list')
    print('user %s (id %d) added in commit %d: read mask 0x%x, timeout %ds, hosts %s'
          % (user['name'], uid, seqno, user['readbm'], user['timeout'], user['hosts']))
    for key in keys:
        kind, data = key.split()[:2]
        print('  key %s %s...%s' % (kind, data[:12], data[-8:]))
    auth = s.user_auth_handle(adm.ask(s.user_auth(name, password, '127.0.0.1'), 'user_auth'))
    print('  password check from 127.0.0.1: %s' % ('id %d' % auth if auth else 'refused'))
    if auth != uid:
        raise Refused('user_auth gave %d for the new account %d' % (auth, uid))


# --- files ----------------------------------------------------------------------------

class Progress(object):
    """The upload's input: counts what has been read and shows it on one line
    (on a terminal; elsewhere one line per quarter)."""

    def __init__(self, data, label):
        self.src, self.size, self.done, self.label = io.BytesIO(data), len(data), 0, label
        self.tty = sys.stdout.isatty()
        self.shown = 0  # percent last printed

    def read(self, n):
        chunk = self.src.read(n)
        self.done += len(chunk)
        percent = self.done * 100 // max(self.size, 1)
        if self.tty or percent // 25 > self.shown // 25:
            sys.stdout.write('%s%s: %d of %d bytes (%d%%)%s' % (
                '\r' if self.tty else '', self.label, self.done, self.size, percent,
                '' if self.tty else '\n'))
            sys.stdout.flush()
            self.shown = percent
        return chunk

    def close(self):
        if self.tty:
            sys.stdout.write('\n')


def upload(adm, name, data):
    """Sends data with up to WINDOW data messages awaiting their answer."""
    s = adm.s
    progress = Progress(data, 'uploading %s' % name)
    up = s.fileserve_upload(AREA, name, progress)
    if not s.fileserve_upload_handle_data(adm.ask(up.cid, 'fileserve_upload'), up):
        raise Refused('fileserve_upload: no transfer id')
    started, outstanding = time.time(), []
    while True:
        cid = s.fileserve_upload_continue(up)
        if cid:
            outstanding.append(cid)
        if up.failed:
            raise Refused('upload of %s failed (state %d)' % (name, up.state))
        while outstanding and (not cid or len(outstanding) >= WINDOW):
            adm.ask(outstanding.pop(0), 'upload of %s' % name, (tq.MSG_TYPE_OK,))
        if not cid:
            break
    progress.close()
    print('  transfer %d acknowledged in %.1f ms' % (up.transfer_id, (time.time() - started) * 1e3))


def download(adm, name):
    s = adm.s
    out, insize = io.BytesIO(), 0
    for msg in adm.answer(s.fileserv_download(AREA, name), 'fileserv_download %s' % name):
        result, insize = s.fileserv_download_handle(msg, out, insize)
        if not result:
            raise Refused('fileserv_download %s: a reply was cut short' % name)
    return insize, out.getvalue()


def transfer_file(adm):
    s = adm.s
    data = b''.join(struct.pack('>I', i) for i in range(FILE_SIZE // 4))
    upload(adm, FILE_NAME, data)
    listed = dict((f['name'], f) for f in
                  adm.listing(s.fileserv_list(AREA), s.fileserv_list_handle, 'fileserv_list'))
    print('  listed: %s, %d bytes' % (FILE_NAME, listed[FILE_NAME]['size']))
    insize, back = download(adm, FILE_NAME)
    if back != data:
        raise Refused('downloaded %d bytes (size %d) differ from the %d uploaded'
                      % (len(back), insize, len(data)))
    print('downloaded %s back: %d bytes, identical' % (FILE_NAME, insize))
    adm.ask(s.fileserve_remove(AREA, FILE_NAME), 'fileserve_remove')


# --- backups and the diagnostic log ---------------------------------------------------

def when(stamp):
    return time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(stamp))


def backups(adm):
    s = adm.s
    name = s.backup_dump_handle(adm.ask(s.backup_dump('', tq.RESOURCE_RULESET), 'backup_dump'))
    print('ruleset backed up as %s' % name)
    print('backups:')
    for b in adm.listing(s.backup_list(), s.backup_list_handle, 'backup_list'):
        print('  %-28s %s UTC %8d bytes' % (b['path'], when(b['cdate']), b['size']))


def diagnostic_log(adm):
    s = adm.s
    adm.ask(s.sysdiag_log_post(tq.SYSDIAG_LOG_SEVERITY_INFO, 'admin example',
                               'user, file transfer and backup checked'), 'sysdiag_log_post')
    entries = adm.listing(s.sysdiag_log_list(0, 0), s.sysdiag_log_list_handle, 'sysdiag_log_list')
    print('diagnostic log: %d %s, the last 5:'
          % (len(entries), 'entry' if len(entries) == 1 else 'entries'))
    for e in entries[-5:]:
        print('  %4d %s UTC %-8s %s%s: %s: %s' % (
            e['id'], when(e['tstamp']), SEVERITIES.get(e['severity'], e['severity']), e['system'],
            ' (new)' if e['is_new'] else '', e['title'], e['body']))


def main(argv):
    adm = open_session(argv, __doc__)
    if adm is None:
        return 2
    add_user(adm)
    transfer_file(adm)
    backups(adm)
    diagnostic_log(adm)
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv))
    except (IOError, RuntimeError) as e:
        print('admin failed: %s' % e, file=sys.stderr)
        sys.exit(1)
