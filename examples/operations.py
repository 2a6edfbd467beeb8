#!/usr/bin/env python
"""Day-to-day operations on the appliance (Python 2.7 and 3).

    python operations.py HOST PORT [USER PASSWORD]

Lists the channels and labels the first one, raises the statistics
retention in a configuration transaction, searches the connection log for
one host's connections in the last hour of the log and prints them as a
table, adds a host trigger, then reloads the appliance and reports the
notice every connection receives. A refused step rolls its transaction
back, is printed, and the exit status is 1.

When the trigger's name is taken already (a second run against the same
appliance), the new one gets a suffix such as "-2".
"""
from __future__ import print_function

import sys
import time

import TQDBv17_1 as tq
from quickstart import Refused, open_session

RELOADING = 10  # the reloading notice's message type (no constant)
MEDIA = dict((getattr(tq, n), n[len('CHANNEL_MEDIA_'):]) for n in dir(tq)
             if n.startswith('CHANNEL_MEDIA_'))
ROLES = dict((getattr(tq, n), n[len('CHANNEL_ROLE_'):]) for n in dir(tq)
             if n.startswith('CHANNEL_ROLE_'))
PROTOCOLS = {6: 'tcp', 17: 'udp', 1: 'icmp', 58: 'icmp6'}


def transaction(op, resource, what, commit_message, steps):
    """steps() inside a transaction on resource, committed; rolled back and
    re-raised when a step is refused."""
    s = op.s
    op.ask(s.resource_begin(resource), 'resource_begin (%s)' % what)
    try:
        result = steps()
    except Refused:
        try:
            op.conn.call(s.resource_rollback(), 'resource_rollback')
        except (IOError, RuntimeError):
            pass  # the transaction goes anyway when the connection closes
        raise
    op.ask(s.resource_commit(commit_message), 'resource_commit (%s)' % what)
    return result


def table(rows, headings):
    """rows (tuples of str) under headings, each column as wide as it needs."""
    widths = [max(len(h), *(len(r[i]) for r in rows)) if rows else len(h)
              for i, h in enumerate(headings)]
    for r in [headings] + rows:
        print('  ' + '  '.join(c.ljust(w) for c, w in zip(r, widths)).rstrip())


# --- channels ------------------------------------------------------------------------------

def channels(op):
    s = op.s
    listed = op.listing(s.channel_list(), s.channel_list_handle, 'channel_list')
    print('channels:')
    table([('%d' % c['id'], c['internal'] + '/' + c['external'],
            MEDIA.get(c['internal_media'], '?') + '/' + MEDIA.get(c['external_media'], '?'),
            ROLES.get(c['role'], '?'), 'active' if c['active'] else 'inactive', c['label'])
           for c in listed], ('id', 'interfaces', 'media', 'role', 'state', 'label'))
    first = listed[0]
    label = 'uplink to the core (%s)' % time.strftime('%Y-%m-%d %H:%M', time.gmtime())
    transaction(op, tq.RESOURCE_CHANNELS, 'channels', 'label channel %d' % first['id'],
                lambda: op.ask(s.channel_update(first, label, first['internal_media'],
                                                first['external_media'], first['role'],
                                                first['direction']),
                               'channel_update %d' % first['id']))
    again = op.listing(s.channel_list(), s.channel_list_handle, 'channel_list')
    print('channel %d is now labelled %r' % (first['id'], again[0]['label']))


# --- configuration ---------------------------------------------------------------------------

def configuration(op, key='stats.retention_days'):
    s = op.s

    def value():
        values = op.listing(s.config_list(), s.config_list_handle, 'config_list')
        return [v['value'] for v in values if v['key'] == key][0]

    before = value()
    wanted = str(int(before) + 30 if int(before) < 3650 else 30)
    transaction(op, tq.RESOURCE_CONFIG, 'config', 'keep statistics longer',
                lambda: op.ask(s.config_set(key, wanted), 'config_set %s' % key))
    print('configuration: %s %s -> %s (committed)' % (key, before, value()))


# --- connection log --------------------------------------------------------------------------

def search(op, **conditions):
    l = None
    for msg in op.answer(op.s.connlog_search(**conditions), 'connlog_search'):
        l = op.s.connlog_search_handle(msg, l)
    if l is None:
        raise Refused('connlog_search: no answer')
    result = l.convert(None)
    if result['error'] != 'No error':
        raise Refused('connlog_search: %s' % result['error'])
    return result


def connection_log(op):
    last = search(op, max_hits=1)['searched_to']  # the newest entry's start
    if not last:
        print('connection log: empty')
        return
    since = last - 3600
    first = search(op, starttime=since, endtime=last, max_hits=1)['entries']
    if not first:
        print('connection log: nothing in the last hour')
        return
    host = first[0]['client']
    found = search(op, client=host, starttime=since, endtime=last, max_hits=20)
    print('connection log: %d of %d connections of %s in the hour up to %s UTC'
          % (found['returned'], found['total'], host,
             time.strftime('%Y-%m-%d %H:%M', time.gmtime(last))))
    table([(time.strftime('%H:%M:%S', time.gmtime(e['start'])), '%ds' % (e['end'] - e['start']),
            PROTOCOLS.get(e['protocol'], str(e['protocol'])),
            '%s:%d' % (e['server'], e['serverport']), e['service'] or '-',
            e['serverhostname'] or '-', '%d/%d' % (e['bytes_in'], e['bytes_out']))
           for e in found['entries']],
          ('start', 'length', 'proto', 'server', 'service', 'host name', 'bytes in/out'))


# --- host trigger ----------------------------------------------------------------------------

def host_trigger(op):
    s = op.s
    taken = set(t['name'] for t in op.listing(s.hosttrigger_list(), s.hosttrigger_list_handle,
                                              'hosttrigger_list'))
    name, n = 'busy host', 1
    while name in taken:
        n += 1
        name = 'busy host-%d' % n
    # in_bw, out_bw (kbit/s), in_cps, out_cps, conns, uconns, uconn_rate, out_ttls,
    # four QoE thresholds, netobject, trigtype: 0 leaves a threshold unwatched.
    thresholds = (50000, 50000, 200, 200, 5000, 0, 0, 0, 0, 0, 0, 0, 0,
                  tq.HOSTTRIGGER_TRIGTYPE_HOST)

    def add():
        new_id = s.hosttrigger_add_handle(op.ask(s.hosttrigger_add(name, 'notify-busy.sh',
                                                                   *thresholds),
                                                 'hosttrigger_add'))
        if not new_id:
            raise Refused('hosttrigger_add: the reply carries no id')
        return new_id

    new_id = transaction(op, tq.RESOURCE_HOSTTRIGGER, 'host triggers', 'watch busy hosts', add)
    print('host trigger %r added (id %d): runs notify-busy.sh above 50 Mbit/s or 5000 '
          'connections' % (name, new_id))


# --- reload ----------------------------------------------------------------------------------

def reload_appliance(op):
    s = op.s
    if not s.reload('operations example: new settings'):
        raise Refused('reload: could not be queued')
    notice = op.conn.wait_type(RELOADING, 'reloading notice')
    print('reload requested; the appliance announced: %r' % s.reloading_handle(notice))
    echo = s.ping_handle(op.ask(s.ping('still there?'), 'ping'))
    print('after the reload the session still answers: %r' % echo)


def main(argv):
    op = open_session(argv, __doc__)
    if op is None:
        return 2
    try:
        channels(op)
        configuration(op)
        connection_log(op)
        host_trigger(op)
        reload_appliance(op)
    except Refused as e:
        print('refused: %s' % e, file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv))
    except (IOError, RuntimeError) as e:
        print('operations failed: %s' % e, file=sys.stderr)
        sys.exit(1)
