#!/usr/bin/env python
"""Statistics benchmark (Python 2.7 and 3).

    PYTHONPATH=build/python3.11 python3 bench/stat_bench.py [--nodes N] [--rows N] [--runs R]

Measures, TQDBv17_1 against plain pure-Python decoders (bench/pystat.py) of
the same reply bodies:

  1. a statistics list answer of 100 000 host nodes by default (mode 1, six
     totals each, every fourth node one extra value) over replies of up to
     32 KiB: Session.stat_list_handle(msg, lst) once per reply into one
     list, then lst.convert(None);
  2. a query stream of 100 000 rows by default of an integer (type 8), a
     real (10), a text (11), a column that is always null and a bool (0),
     the stream cut into 32 KiB replies wherever that falls:
     Session.stat_query_handle_msg(state, msg, cb) once per reply, cb's
     row_data_cb keeping each row, against the pure-Python stream decoder
     calling the same callbacks.

The replies reach the module through an in-process peer, so only decoding
(and converting, and the callbacks) is timed; each side's result must equal
the answer the replies were made from. Each figure is the best of R runs
(default 3), with the cyclic garbage collector held off while timing. A
missed target is printed as MISSED; the exit status is 0 unless the results
disagree or a step fails.
"""
from __future__ import division, print_function

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from benchlib import best_of, deliver, print_ratio, run_main, scripted_session  # noqa: E402
import pyobjlist  # noqa: E402
import pystat  # noqa: E402

import TQDBv17_1 as T  # noqa: E402

LIST_TARGET, QUERY_TARGET = 20.0, 10.0
SESSION_ID = 7


def check(what, got, want):
    if got == want:
        return
    if isinstance(got, list) and isinstance(want, list) and len(got) == len(want):
        i = next(i for i, (g, w) in enumerate(zip(got, want)) if g != w)
        raise RuntimeError('%s: entry %d is %r, want %r' % (what, i, got[i], want[i]))
    raise RuntimeError('%s: %r... instead of %r...' % (what, repr(got)[:200], repr(want)[:200]))


def frames_of(bodies, cid):
    return [pyobjlist.data_frame(b, SESSION_ID, cid) for b in bodies]


def describe(what, bodies):
    print('%s: %d reply messages, %.1f MB' % (what, len(bodies), sum(map(len, bodies)) / 1e6))


# --- 1. list replies -------------------------------------------------------------------

def list_bench(peer, session, n, runs):
    want = pystat.stat_nodes(n)
    bodies = pystat.list_bodies(want)
    describe('%d statistics list nodes (mode 1)' % n, bodies)

    def pure(bodies):
        nodes = None
        for body in bodies:
            nodes = pystat.decode_stat_list(body, nodes)
        return nodes

    def ours(msgs):
        lst = None
        for m in msgs:
            lst = session.stat_list_handle(m, lst)
        return lst.convert(None)

    pure_time, got = best_of(runs, lambda: bodies, pure)
    check('pure-Python list decoder', got, want)
    # A decoder consumes its message, so every run gets fresh replies.
    frames = frames_of(bodies, 2)
    ours_time, got = best_of(runs, lambda: deliver(peer, frames), ours)
    check('TQDBv17_1 stat_list_handle', got, want)
    return print_ratio('statistics list decode+convert', ours_time, pure_time, LIST_TARGET)


# --- 2. the query stream ---------------------------------------------------------------

class Rows(object):
    """The script's side of a query: the description and every row."""

    def __init__(self):
        self.cols, self.rows, self.ends = None, [], 0

    def row_desc_cb(self, cols):
        self.cols = cols

    def row_data_cb(self, values):
        self.rows.append(values)

    def complete_cb(self):
        self.ends += 1

    def end_cb(self):
        self.ends += 1


def query_bench(peer, session, n, runs):
    want = pystat.query_rows(n)
    bodies = pystat.stream_bodies(pystat.query_stream(pystat.QUERY_COLS, want))
    describe('query stream of %d rows, columns %s'
             % (n, ' '.join('%s:%d' % (c[0], c[1]) for c in pystat.QUERY_COLS)), bodies)

    def pure(bodies):
        state, cb = pystat.QueryStream(), Rows()
        for body in bodies:
            state.feed(body, cb)
        return cb

    def ours(msgs):
        state, cb = T.TQStatQueryState(), Rows()
        for m in msgs:
            session.stat_query_handle_msg(state, m, cb)
        if not state.done:
            raise RuntimeError("TQDBv17_1: the stream's end was not delivered")
        return cb

    def check_rows(what, cb):
        check(what + ': description', cb.cols, pystat.QUERY_COLS)
        check(what + ': rows', cb.rows, want)
        check(what + ': completion and end', cb.ends, 2)

    pure_time, got = best_of(runs, lambda: bodies, pure)
    check_rows('pure-Python stream decoder', got)
    frames = frames_of(bodies, 3)
    ours_time, got = best_of(runs, lambda: deliver(peer, frames), ours)
    check_rows('TQDBv17_1 stat_query_handle_msg', got)
    return print_ratio('query stream decode+callbacks', ours_time, pure_time, QUERY_TARGET)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--nodes', type=int, default=100000)
    parser.add_argument('--rows', type=int, default=100000)
    parser.add_argument('--runs', type=int, default=3)
    args = parser.parse_args()
    print('Python %d.%d.%d' % sys.version_info[:3])
    peer, session = scripted_session(SESSION_ID)
    try:
        list_bench(peer, session, args.nodes, args.runs)
        query_bench(peer, session, args.rows, args.runs)
    finally:
        peer.close()
    return 0


if __name__ == '__main__':
    run_main(main, 'stat_bench')
