#!/usr/bin/env python
"""Object list benchmark (Python 2.7 and 3).

    PYTHONPATH=build/python3.11 python3 bench/object_list_bench.py [--objects N] [--runs R]

Measures decoding and converting a large object-list answer (100 000 net
objects with three IPv4 items each by default):

  1. TQDBv17_1 against a plain pure-Python decoder (bench/pyobjlist.py) over
     the same reply bodies: Session.object_list_handle(msg, l) once per
     reply message into one list, then l.convert(None). The replies reach
     the handle through an in-process peer, so only decode and convert are
     timed; both results must be equal.
  2. The whole round trip through tqdbsim ($TQDBSIM, else build/bin/tqdbsim),
     started on a state file that holds the same objects (--via-protocol:
     started empty and given them by object_add / object_item_add in one
     transaction, many requests in flight): object_list(OBJECT_TYPE_NETOBJECT),
     every DATA reply up to the OK decoded as it arrives, then convert;
     against the pure-Python decoder alone over the same records.

Each figure is the best of R runs (default 3), with the cyclic garbage
collector held off while timing, as timeit does. A missed target is printed
as MISSED; the exit status is 0 unless the results disagree or a step fails.
"""
from __future__ import division, print_function

import argparse
import json
import os
import select
import shutil
import sys
import tempfile
import time
from timeit import default_timer as timer

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)

from benchlib import (TIMEOUT, best_of, deliver, print_ratio, run_main,  # noqa: E402
                      scripted_session, verdict)
import pyobjlist  # noqa: E402
import simhelper  # noqa: E402

T = simhelper.T
DECODE_TARGET, ROUND_TRIP_TARGET = 20.0, 5.0


def first_difference(got, want):
    if len(got) != len(want):
        return '%d objects instead of %d' % (len(got), len(want))
    for g, w in zip(got, want):
        if g != w:
            return 'object %r differs: got %r, want %r' % (w.get('id'), g, w)
    return None


def pure_decode(bodies):
    objects = None
    for body in bodies:
        objects = pyobjlist.decode_object_list(body, objects)
    return objects or []


# --- 1. decode and convert, replies from an in-process peer -----------------

def decode_bench(n, k, runs):
    want = pyobjlist.net_objects(n, k)
    bodies = list(pyobjlist.bodies(pyobjlist.records(T.OBJECT_TYPE_NETOBJECT, want)))
    print('%d net objects with %d items each: %d reply messages, %.1f MB'
          % (n, k, len(bodies), sum(len(b) for b in bodies) / 1e6))

    pure_time, pure = best_of(runs, lambda: bodies, pure_decode)
    problem = first_difference(pure, want)
    if problem:
        raise RuntimeError('pure-Python decoder: ' + problem)
    pure = None

    session_id, cid = 7, 2
    peer, session = scripted_session(session_id)
    try:
        frames = [pyobjlist.data_frame(b, session_id, cid) for b in bodies]

        def work(msgs):
            l = None
            for m in msgs:
                l = session.object_list_handle(m, l)
            return l.convert(None) if l is not None else []
        # A decoder consumes its message, so every run gets fresh replies.
        ours_time, ours = best_of(runs, lambda: deliver(peer, frames), work)
    finally:
        peer.close()
    problem = first_difference(ours, want)
    if problem:
        raise RuntimeError('TQDBv17_1: ' + problem)
    print_ratio('object list decode+convert', ours_time, pure_time, DECODE_TARGET)


# --- 2. the round trip through tqdbsim ----------------------------------------

class Pump(object):
    """The event loop of one connected client, for many requests in flight."""

    def __init__(self, client):
        self.handle, self.io = client.handle, client.vindel

    def run(self, on_msg, done, step=None):
        deadline = time.time() + TIMEOUT
        while True:
            if step:
                step()
            if done():
                return
            if time.time() > deadline:
                raise RuntimeError('no progress within %gs' % TIMEOUT)
            writers = [self.io] if self.handle.want_write() else []
            readable, writable, _ = select.select([self.io], writers, [], 0.5)
            if writable:
                self.handle.write()
            if readable:
                m = self.handle.readmsg()
                while m is not None:
                    on_msg(m)
                    m = self.handle.readmsg()

    def call(self, cid, what):
        """The one reply to cid."""
        if not cid:
            raise RuntimeError('could not queue ' + what)
        got = []
        self.run(lambda m: got.append(m) if m.get_cid() == cid else None, lambda: got)
        return got[0]

    def pipeline(self, calls, on_reply, window=4096):
        """Sends calls ((send, context) pairs; send() queues one request and
        returns its correlation id) keeping at most window in flight, and
        gives each reply to on_reply(context, msg)."""
        calls = iter(calls)
        inflight = {}
        left = [True]

        def refill():
            while left[0] and len(inflight) < window:
                try:
                    send, context = next(calls)
                except StopIteration:
                    left[0] = False
                    return
                cid = send()
                if not cid:
                    raise RuntimeError('could not queue a request')
                inflight[cid] = context

        def on_msg(m):
            context = inflight.pop(m.get_cid(), None)
            if context is not None:
                on_reply(context, m)
        self.run(on_msg, lambda: not left[0] and not inflight, refill)


def expect(msg, msg_type, what):
    if msg.get_type() != msg_type:
        raise RuntimeError('%s: message type %d %s' % (what, msg.get_type(), msg.get_error()))
    return msg


def item_fields(item):
    return dict((key, item[key]) for key in ('type', 'value1', 'value2', 'exclude'))


def populate(pump, session, objects):
    """Adds the objects and their items in one ruleset transaction, many
    requests in flight at a time. Returns the ids the simulator gave."""
    kind = T.OBJECT_TYPE_NETOBJECT
    handle = pump.handle
    handle.begin_handle(expect(pump.call(session.resource_begin(T.RESOURCE_RULESET), 'begin'),
                               T.MSG_TYPE_DATA, 'begin'))
    ids = [0] * len(objects)

    def added(i, m):
        ids[i] = session.object_add_handle(expect(m, T.MSG_TYPE_DATA, 'object_add'))[0]
    pump.pipeline(((lambda o=o: session.object_add(kind, o['name'], 0), i)
                   for i, o in enumerate(objects)), added)

    def item_added(_, m):
        expect(m, T.MSG_TYPE_DATA, 'object_item_add')
    pump.pipeline(((lambda oid=oid, item=item: session.object_item_add(kind, oid,
                                                                       item_fields(item)), None)
                   for oid, o in zip(ids, objects) for item in o['items']), item_added)
    handle.commit_handle(expect(pump.call(session.resource_commit('object list benchmark'),
                                          'commit'), T.MSG_TYPE_DATA, 'commit'))
    return ids


def list_objects(pump, session):
    """Every net object: the DATA replies up to the OK, decoded as they come."""
    cid = session.object_list(T.OBJECT_TYPE_NETOBJECT)
    if not cid:
        raise RuntimeError('could not queue object_list')
    state = {'l': None, 'done': False}

    def on_msg(m):
        if m.get_cid() != cid:
            return
        if m.get_type() == T.MSG_TYPE_DATA:
            state['l'] = session.object_list_handle(m, state['l'])
        elif m.get_type() == T.MSG_TYPE_OK:
            state['done'] = True
        else:
            raise RuntimeError('object_list: message type %d %s' % (m.get_type(), m.get_error()))
    pump.run(on_msg, lambda: state['done'])
    return state['l'].convert(None) if state['l'] is not None else []


def simulator_path():
    path = os.environ.get('TQDBSIM') or os.path.join(ROOT, 'build', 'bin', 'tqdbsim')
    return path if os.path.exists(path) else None


def write_state_file(path, objects):
    """A tqdbsim state file whose ruleset holds these net objects (as
    convert() gives them) with their ids, items and audit fields."""
    audit_keys = ('creator', 'creation_date', 'modified_by', 'modification_date')

    def audit(record):
        return dict((key, record[key]) for key in audit_keys)

    def item(i):
        entry = item_fields(i)
        entry.update(id=i['id'], audit=audit(i))
        return entry
    last_item = max([i['id'] for o in objects for i in o['items']] or [0])
    state = {'format': 1, 'ruleset': {
        'counters': {'objects': [len(objects)] + [0] * 18, 'item': last_item},
        'objects': [{'type': T.OBJECT_TYPE_NETOBJECT, 'id': o['id'], 'name': o['name'],
                     'parent': o['parent'], 'visible': 1 if o['visible'] else 0,
                     'audit': audit(o), 'attributes': {}, 'comments': '',
                     'items': [item(i) for i in o['items']]} for o in objects]}}
    with open(path, 'w') as f:
        json.dump(state, f)


def round_trip_bench(n, k, runs, via_protocol):
    path = simulator_path()
    if not path:
        print('round trip through tqdbsim: skipped, no simulator (set TQDBSIM)')
        return
    os.environ['TQDBSIM'] = path
    made = pyobjlist.net_objects(n, k)
    for o in made:
        o['referenced'] = 0  # nothing refers to them in the simulator
    workdir = tempfile.mkdtemp(prefix='object_list_bench.')
    state = os.path.join(workdir, 'state.json')
    sim = None
    try:
        if not via_protocol:
            write_state_file(state, made)
        sim = simhelper.Simulator('--state', state)
        client = simhelper.Client(sim.host, sim.port)
        if client.login() is None:
            raise RuntimeError('login refused')
        session = client.session()
        pump = Pump(client)
        if via_protocol:
            t0 = timer()
            populate(pump, session, made)
            print('tqdbsim: %d objects and %d items added through the protocol in one '
                  'transaction in %.1fs' % (n, n * k, timer() - t0))
        trip_time, got = best_of(runs, lambda: None, lambda _: list_objects(pump, session))
    finally:
        if sim:
            sim.stop()
        shutil.rmtree(workdir, ignore_errors=True)

    if via_protocol:  # the simulator chose the ids, dates and parents
        def shape(objects):
            return sorted((o['name'], [item_fields(i) for i in o['items']]) for o in objects)
        problem = None if shape(got) == shape(made) else 'other objects than were added'
    else:
        problem = first_difference(got, made)
    if problem:
        raise RuntimeError('tqdbsim listed ' + problem)
    # The same records as reply bodies, for the pure-Python decoder alone.
    bodies = list(pyobjlist.bodies(pyobjlist.records(T.OBJECT_TYPE_NETOBJECT, got)))
    pure_time, pure = best_of(runs, lambda: bodies, pure_decode)
    problem = first_difference(pure, got)
    if problem:
        raise RuntimeError('pure-Python decoder on the listed objects: ' + problem)
    ratio = pure_time / trip_time
    print('round trip through tqdbsim: %.2fs, pure-Python decode alone %.2fs, ratio %.1fx '
          '(target >= %gx)%s' % (trip_time, pure_time, ratio, ROUND_TRIP_TARGET,
                                 verdict(ratio, ROUND_TRIP_TARGET)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--objects', type=int, default=100000)
    parser.add_argument('--items', type=int, default=3)
    parser.add_argument('--runs', type=int, default=3)
    parser.add_argument('--no-sim', action='store_true', help='skip the round trip')
    parser.add_argument('--via-protocol', action='store_true',
                        help='give tqdbsim the objects through object_add and '
                             'object_item_add instead of a state file')
    args = parser.parse_args()
    print('Python %d.%d.%d' % sys.version_info[:3])
    decode_bench(args.objects, args.items, args.runs)
    if not args.no_sim:
        round_trip_bench(args.objects, args.items, args.runs, args.via_protocol)
    return 0


if __name__ == '__main__':
    run_main(main, 'object_list_bench')
