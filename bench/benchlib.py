"""What the Python benchmarks share (Python 2.7 and 3): best-of timing with
the garbage collector held off, the verdict on a target, and replies
delivered to a TQDBAPIHandle by an in-process peer, so that only decoding
is timed."""
from __future__ import division, print_function

import gc
import os
import select
import sys
import time
from timeit import default_timer as timer

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'python'))

import simhelper  # noqa: E402

TIMEOUT = 600.0  # for any one step that waits on the other end
CHUNK = 1 << 18  # bytes handed to the peer's socket per write


def best_of(runs, prepare, work):
    """(best seconds, result of the last run). prepare() is untimed and its
    value is passed to work()."""
    best, result = None, None
    for _ in range(runs):
        arg = prepare()
        result = None
        gc.collect()
        gc.disable()
        try:
            t0 = timer()
            result = work(arg)
            took = timer() - t0
        finally:
            gc.enable()
        best = took if best is None else min(best, took)
    return best, result


def verdict(ratio, target):
    return '' if ratio >= target else ' MISSED'


def print_ratio(what, ours, pure, target):
    """One result line: both times, their ratio and the target."""
    ratio = pure / ours
    print('%s: TQDBv17_1 %.3fs, pure Python %.3fs, ratio %.1fx (target >= %gx)%s'
          % (what, ours, pure, ratio, target, verdict(ratio, target)))
    return ratio


def scripted_session(session_id=7):
    """(peer, session): a ScriptedPeer and the Session it opened with this id."""
    peer = simhelper.ScriptedPeer()
    try:
        opened = simhelper.frame(simhelper.REPLY_DATA, simhelper.u32(0) + simhelper.u32(1) +
                                 simhelper.u32(session_id))
        return peer, peer.handle.session_new_handle(peer.reply(opened))
    except Exception:
        peer.close()
        raise


def deliver(peer, frames):
    """Sends the frames from the peer and returns the TQMessages the handle
    reads from them, in order."""
    data = b''.join(frames)
    sent, msgs = 0, []
    deadline = time.time() + TIMEOUT
    while len(msgs) < len(frames):
        if time.time() > deadline:
            raise RuntimeError('only %d of %d replies arrived' % (len(msgs), len(frames)))
        moved = 0
        if sent < len(data):
            moved = peer.server.write(data[sent:sent + CHUNK])
            sent += moved
        m = peer.handle.readmsg()
        while m is not None:
            msgs.append(m)
            moved = 1
            m = peer.handle.readmsg()
        if not moved:
            select.select([peer.client], [peer.server] if sent < len(data) else [], [], 0.2)
    return msgs


def run_main(main, name):
    """sys.exit(main()), a failure told in one line with status 1."""
    try:
        sys.exit(main())
    except (IOError, RuntimeError, AssertionError) as e:
        print('%s failed: %s' % (name, e), file=sys.stderr)
        sys.exit(1)
