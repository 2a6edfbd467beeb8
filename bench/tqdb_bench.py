#!/usr/bin/env python3
"""The tqdb package's benchmark (Python 3.8+).

    TQDBSIM=build/bin/tqdbsim PYTHONPATH=build/python3.11:. python3 bench/tqdb_bench.py

Against tqdbsim on loopback ($TQDBSIM, else build/bin/tqdbsim):

  1. The blocking client's overhead against a tight loop over TQDBv17_1
     itself: 100 000 pipelined pings (the raw loop queues them 4 096 ahead
     and decodes each reply; the client submits them all and asks every
     Pending for its result), and a 100 000-object list (the raw loop of
     bench/object_list_bench.py against db.object_list). Target: the client
     at least 0.8 of the raw rate.
  2. The asyncio client's rate for the same pings (futures from submit(),
     and coroutine methods) and the same list.
  3. Fleets: connect + handshake + login + session per appliance with a
     shared key, one after the other, blocking and asyncio (target under
     2 ms); 1 000 asyncio connections held at once from this process,
     spread over several simulators, their idle memory (growth of the
     resident set over the connections, per connection; target under
     16 KiB), and a fleet() run over them.

Each rate is the best of R runs (default 3), the cyclic garbage collector
held off while timing. A missed target is printed as MISSED; the exit
status is 0 unless a step fails.
"""
import argparse
import asyncio
import gc
import os
import resource
import select
import shutil
import sys
import tempfile
import tracemalloc
from timeit import default_timer as timer

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
sys.path.insert(0, HERE)

from benchlib import TIMEOUT, best_of, run_main, verdict  # noqa: E402
import object_list_bench as olb  # noqa: E402
import pyobjlist  # noqa: E402
import simhelper  # noqa: E402

import tqdb  # noqa: E402
import tqdb.aio  # noqa: E402

T = simhelper.T
OVERHEAD_TARGET, CONNECT_TARGET_MS, MEMORY_TARGET_KIB = 0.8, 2.0, 16.0
WINDOW = 4096


def rate_line(what, n, seconds, raw=None, target=None):
    line = '%-44s %8.3fs %10.0f/s' % (what, seconds, n / seconds)
    if raw is not None:
        ratio = raw / seconds
        line += '  %.2f of raw' % ratio
        if target is not None:
            line += ' (target >= %g)%s' % (target, verdict(ratio, target))
    print(line)


def raw_session(sim):
    client = simhelper.Client(sim.host, sim.port)
    if client.login() is None:
        raise RuntimeError('login refused')
    return client, client.session()


def raw_pings(client, session, n):
    """n pings, at most WINDOW ahead, each reply decoded."""
    handle, io = client.handle, client.vindel
    ping, decode = session.ping, session.ping_handle
    sent = got = 0
    while got < n:
        while sent < n and sent - got < WINDOW:
            if not ping('x'):
                raise RuntimeError('could not queue a ping')
            sent += 1
        if handle.want_write():
            handle.write()
        r, w, _ = select.select([io], [io] if handle.want_write() else [], [], TIMEOUT)
        if not (r or w):
            raise RuntimeError('no progress within %gs' % TIMEOUT)
        if w:
            handle.write()
        if r:
            m = handle.readmsg()
            while m is not None:
                if decode(m) != 'x':
                    raise RuntimeError('a ping echoed something else')
                got += 1
                m = handle.readmsg()
    return got


def client_pings(db, n):
    pending = [db.submit('ping', 'x') for _ in range(n)]
    if any(p.result() != 'x' for p in pending):
        raise RuntimeError('a ping echoed something else')
    return n


async def aio_pings(db, n, futures):
    calls = [db.submit('ping', 'x') if futures else db.ping('x') for _ in range(n)]
    if any(v != 'x' for v in await asyncio.gather(*calls)):
        raise RuntimeError('a ping echoed something else')
    return n


def connect_kw(sim):
    return dict(host=sim.host, port=sim.port, key=tqdb.shared_key(), timeout=TIMEOUT)


def bench_requests(args, loop):
    sim = simhelper.Simulator()
    try:
        client, session = raw_session(sim)
        raw, _ = best_of(args.runs, lambda: None, lambda _: raw_pings(client, session, args.pings))
        rate_line('%d pings: raw TQDBv17_1 loop' % args.pings, args.pings, raw)
        with tqdb.connect(**connect_kw(sim)) as db:
            took, _ = best_of(args.runs, lambda: None, lambda _: client_pings(db, args.pings))
        rate_line('  tqdb.Client submit/result', args.pings, took, raw, OVERHEAD_TARGET)
        db = loop.run_until_complete(tqdb.aio.connect(**connect_kw(sim)))
        try:
            for futures, what in ((True, 'submit futures'), (False, 'coroutine methods')):
                took, _ = best_of(args.runs, lambda: None, lambda _: loop.run_until_complete(
                    aio_pings(db, args.pings, futures)))
                rate_line('  tqdb.aio gather of %s' % what, args.pings, took, raw)
        finally:
            db.close()
    finally:
        sim.stop()


def bench_object_list(args, loop):
    n = args.objects
    workdir = tempfile.mkdtemp(prefix='tqdb_bench.')
    state = os.path.join(workdir, 'state.json')
    sim = None
    try:
        olb.write_state_file(state, pyobjlist.net_objects(n, args.items))
        sim = simhelper.Simulator('--state', state)
        client, session = raw_session(sim)
        pump = olb.Pump(client)
        raw, got = best_of(args.runs, lambda: None, lambda _: olb.list_objects(pump, session))
        if len(got) != n:
            raise RuntimeError('the raw loop listed %d objects' % len(got))
        rate_line('%d-object list: raw TQDBv17_1 loop' % n, n, raw)
        got = None
        with tqdb.connect(**connect_kw(sim)) as db:
            took, got = best_of(args.runs, lambda: None,
                                lambda _: db.object_list(T.OBJECT_TYPE_NETOBJECT))
        if len(got) != n:
            raise RuntimeError('tqdb.Client listed %d objects' % len(got))
        rate_line('  tqdb.Client object_list', n, took, raw, OVERHEAD_TARGET)
        got = None
        db = loop.run_until_complete(tqdb.aio.connect(**connect_kw(sim)))
        try:
            took, got = best_of(args.runs, lambda: None, lambda _: loop.run_until_complete(
                db.object_list(T.OBJECT_TYPE_NETOBJECT)))
        finally:
            db.close()
        if len(got) != n:
            raise RuntimeError('tqdb.aio listed %d objects' % len(got))
        rate_line('  tqdb.aio object_list', n, took, raw)
    finally:
        if sim:
            sim.stop()
        shutil.rmtree(workdir, ignore_errors=True)


def rss():
    with open('/proc/self/statm') as f:
        return int(f.read().split()[1]) * os.sysconf('SC_PAGE_SIZE')


def raise_fd_limit(need):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != resource.RLIM_INFINITY and soft < need:
        want = need if hard == resource.RLIM_INFINITY else min(need, hard)
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


def bench_fleet(args, loop):
    n, per_sim = args.fleet, args.per_sim
    if n <= 0:
        return
    limit = raise_fd_limit(n + 256)
    if limit != resource.RLIM_INFINITY and limit < n + 64:
        print('fleet: %d connections need more descriptors than the limit %d; skipped'
              % (n, limit))
        return
    sims = []
    try:
        sims = [simhelper.Simulator() for _ in range((n + per_sim - 1) // per_sim)]
        kw = connect_kw(sims[0])
        tqdb.connect(**kw).close()   # key made, code paths warm

        def serial(k):
            for _ in range(k):
                tqdb.connect(**kw).close()
        took, _ = best_of(args.runs, lambda: None, lambda _: serial(args.connects))
        ms = took / args.connects * 1e3
        print('connect+handshake+login+session, blocking: %.2f ms each (target < %g ms)%s'
              % (ms, CONNECT_TARGET_MS, verdict(CONNECT_TARGET_MS, ms)))

        async def aserial(k):
            for _ in range(k):
                (await tqdb.aio.connect(**kw)).close()
        took, _ = best_of(args.runs, lambda: None,
                          lambda _: loop.run_until_complete(aserial(args.connects)))
        ms = took / args.connects * 1e3
        print('connect+handshake+login+session, asyncio:  %.2f ms each (target < %g ms)%s'
              % (ms, CONNECT_TARGET_MS, verdict(CONNECT_TARGET_MS, ms)))

        targets = [(sims[i // per_sim].host, sims[i // per_sim].port, i) for i in range(n)]
        slots = asyncio.Semaphore(args.concurrency)

        async def one(host, port):
            async with slots:
                return await tqdb.aio.connect(host, port, key=kw['key'], timeout=TIMEOUT)
        gc.collect()
        before = rss()
        t0 = timer()
        held = loop.run_until_complete(asyncio.gather(*(one(h, p) for h, p, _ in targets)))
        opened = timer() - t0
        loop.run_until_complete(asyncio.gather(*(db.ping('x') for db in held)))
        gc.collect()
        per = (rss() - before) / n / 1024.0
        print('%d connections held at once (%d simulators): opened in %.2fs, %.2f ms each '
              'with %d at a time' % (n, len(sims), opened, opened / n * 1e3, args.concurrency))
        print('idle memory per connection: %.1f KiB (resident set growth / %d; target < %g KiB)%s'
              % (per, n, MEMORY_TARGET_KIB, verdict(MEMORY_TARGET_KIB, per)))
        for db in held:
            db.close()
        held = None
        # Of that, what the Python objects take (the rest is the modules' own
        # allocations, the transport's buffers first of all).
        k = min(n, 200)
        tracemalloc.start()
        held = loop.run_until_complete(asyncio.gather(*(one(h, p) for h, p, _ in targets[:k])))
        gc.collect()
        py = tracemalloc.get_traced_memory()[0] / k / 1024.0
        tracemalloc.stop()
        print('  of which Python objects (tracemalloc): %.1f KiB' % py)
        for db in held:
            db.close()
        held = None

        t0 = timer()
        got = loop.run_until_complete(tqdb.aio.fleet(
            targets, lambda db: db.ping('up'), concurrency=args.concurrency, timeout=TIMEOUT))
        took = timer() - t0
        failed = [t for t, v in got.items() if v != 'up']
        if failed:
            raise RuntimeError('fleet: %d targets failed, first %r: %r'
                               % (len(failed), failed[0], got[failed[0]]))
        print('fleet() over %d targets, %d at a time, connect+ping+close each: %.2fs, %.2f ms '
              'per target' % (n, args.concurrency, took, took / n * 1e3))
    finally:
        for s in sims:
            s.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--pings', type=int, default=100000)
    parser.add_argument('--objects', type=int, default=100000)
    parser.add_argument('--items', type=int, default=3)
    parser.add_argument('--runs', type=int, default=3)
    parser.add_argument('--fleet', type=int, default=1000, help='connections held at once')
    parser.add_argument('--per-sim', type=int, default=250, help='connections per simulator')
    parser.add_argument('--concurrency', type=int, default=100)
    parser.add_argument('--connects', type=int, default=200, help='serial connects timed')
    args = parser.parse_args()
    if not olb.simulator_path():
        print('tqdb_bench: skipped, no simulator (set TQDBSIM)')
        return 0
    os.environ['TQDBSIM'] = olb.simulator_path()
    print('Python %d.%d.%d' % sys.version_info[:3])
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    try:
        bench_requests(args, loop)
        bench_object_list(args, loop)
        bench_fleet(args, loop)
    finally:
        loop.close()
    return 0


if __name__ == '__main__':
    run_main(main, 'tqdb_bench')
