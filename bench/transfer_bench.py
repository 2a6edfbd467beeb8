#!/usr/bin/env python
"""File transfer benchmark (Python 2.7 and 3).

    TQDBSIM=build/bin/tqdbsim PYTHONPATH=build/python3.11 python3 bench/transfer_bench.py
        [--mib N] [--window W] [--runs R] [--nodelay]
        [--framed-json FILE | --framed-bench PROG]

Uploads a file of N MiB (default 64) of random bytes to the host trigger
area of a tqdbsim ($TQDBSIM, else build/bin/tqdbsim) started with
--max-file-bytes large enough, then downloads it back, both from Python
through TQDBv17_1: the upload with fileserve_upload_continue keeping W data
messages (default 32) sent ahead of their answers, the download with
fileserv_download_handle on every DATA reply up to the closing OK. Each
direction is timed from its first request to its last answer, best of R
runs (default 3), and the downloaded bytes must equal the uploaded ones.
Besides wall time, the CPU time (user + system) of both ends is taken,
this process's and the simulator's (from /proc): cpu-bound is the rate
with a core per end. --nodelay sets TCP_NODELAY on the client's socket
first, which the transport does not do.

Beside them: the encrypted framed loopback throughput of the transport
alone (framed_bench's row of 32768-byte frames sent 4096 bytes per socket
call, the handle's own unit), wall and cpu-bound, read from the JSON that
bench/run made in the same run (--framed-json) or measured here by running
the program (--framed-bench, else framed_bench next to the simulator).
Target: each direction at least half of that figure, by both measures; a
missed target is printed as MISSED. The exit status is 0 unless a step
fails or the bytes differ.
"""
from __future__ import division, print_function

import argparse
import collections
import gc
import io
import json
import os
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from timeit import default_timer as timer

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from benchlib import ROOT, TIMEOUT, run_main  # noqa: E402
import simhelper  # noqa: E402

T = simhelper.T
AREA = T.FILESERV_ID_HOSTTRIGGER
NAME = 'transfer_bench.bin'
DATA_BUDGET = 31768  # content bytes of one full upload data message
FRAMED_ROW = 'BM_FramedLoopback/32768/4096/'
TARGET = 0.5
MB = 1e6


class Loop(object):
    """The script's event loop over one connection: write when the handle
    has something queued, read every whole message when the socket has
    data. Nothing else runs between the two."""

    def __init__(self, client):
        self.handle, self.io = client.handle, client.vindel
        self.deadline = None

    def step(self):
        """The messages that arrived, after waiting for the socket if needed."""
        if time.time() > self.deadline:
            raise RuntimeError('no end of the transfer within %gs' % TIMEOUT)
        handle = self.handle
        writers = [self.io] if handle.want_write() else []
        readable, writable, _ = select.select([self.io], writers, [], 0.5)
        if writable:
            handle.write()
        got = []
        if readable:
            m = handle.readmsg()
            while m is not None:
                got.append(m)
                m = handle.readmsg()
        return got


def nodelay(vindel):
    """TCP_NODELAY on the connection's socket (through a duplicate of its
    descriptor, which shares the socket)."""
    s = socket.fromfd(vindel.fileno(), socket.AF_INET, socket.SOCK_STREAM)
    try:
        s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    finally:
        s.close()


def expect(msg, msg_type, what):
    if msg.get_type() != msg_type:
        raise RuntimeError('%s: message type %d %s' % (what, msg.get_type(), msg.get_error()))
    return msg


def upload(loop, session, path, size, window):
    """Sends the file at path; returns once the finish request is answered."""
    loop.deadline = time.time() + TIMEOUT
    up = session.fileserve_upload(AREA, NAME, path)
    start = []
    while not start:
        start = [m for m in loop.step() if m.get_cid() == up.cid]
    if not session.fileserve_upload_handle_data(expect(start[0], T.MSG_TYPE_DATA, 'start'), up):
        raise RuntimeError('upload start: no transfer id')
    # A file that fills its last data message exactly is followed by one
    # more data message that holds no chunk: it is never sent, so never answered.
    carrying = -(-size // DATA_BUDGET)
    inflight, queued, finished = collections.deque(), 0, False
    while not finished or inflight:
        while not finished and len(inflight) < window:
            cid = session.fileserve_upload_continue(up)
            if up.failed:
                raise RuntimeError('upload failed in state %d' % up.state)
            if not cid:
                finished = True
                break
            queued += 1
            if queued <= carrying or up.state == 4:  # a data message with chunks, the finish
                inflight.append(cid)
        for m in loop.step():
            if not inflight or m.get_cid() != inflight[0]:
                raise RuntimeError('unexpected message type %d cid %d: %s'
                                   % (m.get_type(), m.get_cid(), m.get_error()))
            expect(m, T.MSG_TYPE_OK, 'upload data')
            inflight.popleft()
    return up.transfer_id


def download(loop, session):
    """The file's bytes, every reply written to a BytesIO as it arrives."""
    loop.deadline = time.time() + TIMEOUT
    out, insize, done = io.BytesIO(), 0, False
    cid = session.fileserv_download(AREA, NAME)
    handle = session.fileserv_download_handle
    while not done:
        for m in loop.step():
            if m.get_cid() != cid:
                raise RuntimeError('unexpected message cid %d' % m.get_cid())
            if m.get_type() == T.MSG_TYPE_DATA:
                result, insize = handle(m, out, insize)
                if not result:
                    raise RuntimeError('download: a reply was cut short')
            else:
                expect(m, T.MSG_TYPE_OK, 'download')
                done = True
    return insize, out.getvalue()


class Ends(object):
    """Wall time and the CPU time (user + system) of both ends: this process
    and the simulator, read from /proc."""

    def __init__(self, sim_pid):
        self.stat = '/proc/%d/stat' % sim_pid
        self.tick = float(os.sysconf('SC_CLK_TCK'))

    def sim_cpu(self):
        with open(self.stat) as f:
            fields = f.read().rsplit(')', 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / self.tick  # utime, stime

    def best(self, runs, work):
        """[best wall, best client CPU, best simulator CPU, result of the last run]
        over runs, the garbage collector held off while timing."""
        best = [float('inf')] * 3
        result = None
        for _ in range(runs):
            gc.collect()
            gc.disable()
            try:
                own, sim, t0 = sum(os.times()[:2]), self.sim_cpu(), timer()
                result = work()
                took = [timer() - t0, sum(os.times()[:2]) - own, self.sim_cpu() - sim]
            finally:
                gc.enable()
            best = [min(b, t) for b, t in zip(best, took)]
        return best + [result]


# --- the framed figure -----------------------------------------------------------------

def framed_row(benchmarks):
    for b in benchmarks:
        if b['name'].startswith(FRAMED_ROW) and 'bytes_per_second' in b:
            return b['bytes_per_second'] / MB, b.get('cpu_bound_MBps')
    raise RuntimeError('framed_bench has no row %s...' % FRAMED_ROW)


def framed_figure(args, sim_path):
    """(wall MB/s, cpu-bound MB/s, where it came from)."""
    if args.framed_json:
        with open(args.framed_json) as f:
            return framed_row(json.load(f)['benchmarks']) + ('framed_bench of this run',)
    prog = args.framed_bench or os.path.join(os.path.dirname(sim_path), 'framed_bench')
    if not os.path.exists(prog):
        return None, None, None
    text = subprocess.check_output([prog, '--benchmark_filter=^' + FRAMED_ROW,
                                    '--benchmark_format=json'])
    return framed_row(json.loads(text.decode('utf-8'))['benchmarks']) + ('measured here',)


def rate(size, seconds):
    """MB/s; a time below the clock's resolution (CPU time counts in ticks) is inf."""
    return size / seconds / MB if seconds > 0 else float('inf')


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--mib', type=int, default=64)
    parser.add_argument('--window', type=int, default=32)
    parser.add_argument('--runs', type=int, default=3)
    parser.add_argument('--nodelay', action='store_true',
                        help="set TCP_NODELAY on the client's socket first")
    parser.add_argument('--framed-json')
    parser.add_argument('--framed-bench')
    args = parser.parse_args()
    sim_path = os.environ.get('TQDBSIM') or os.path.join(ROOT, 'build', 'bin', 'tqdbsim')
    if not os.path.exists(sim_path):
        raise RuntimeError('no simulator at %s (set TQDBSIM)' % sim_path)
    os.environ['TQDBSIM'] = sim_path
    size = args.mib << 20
    print('Python %d.%d.%d, %d MiB, window of %d data messages'
          % (sys.version_info[:3] + (args.mib, args.window)))

    workdir = tempfile.mkdtemp(prefix='transfer_bench.')
    sim = None
    try:
        path = os.path.join(workdir, NAME)
        data = os.urandom(size)
        with open(path, 'wb') as f:
            f.write(data)
        sim = simhelper.Simulator('--max-file-bytes', str(max(size, 1 << 24)))
        client = simhelper.Client(sim.host, sim.port)
        if client.login() is None:
            raise RuntimeError('login refused')
        if args.nodelay:
            nodelay(client.vindel)
        session, loop = client.session(), Loop(client)
        ends = Ends(sim.proc.pid)
        up = ends.best(args.runs, lambda: upload(loop, session, path, size, args.window))
        down = ends.best(args.runs, lambda: download(loop, session))
        insize, back = down.pop()
        up.pop()
        if insize != size or back != data:
            raise RuntimeError('downloaded %d bytes (size %d), not the %d uploaded'
                               % (len(back), insize, size))
    finally:
        if sim:
            sim.stop()
        shutil.rmtree(workdir, ignore_errors=True)

    framed, bound, source = framed_figure(args, sim_path)
    if framed is None:
        print('(framed_bench not found: pass --framed-bench or --framed-json; ratios skipped)')
    else:
        print('encrypted framed loopback (%s): %.1f MB/s wall, %.1f MB/s cpu-bound'
              % (source, framed, bound or 0.0))
    print('%-9s %9s %10s %9s %9s %10s' % ('', 'wall MB/s', 'client cpu', 'sim cpu',
                                          'cpu-bound', 'seconds'))
    for what, (wall, client_cpu, sim_cpu) in (('upload', up), ('download', down)):
        rates = [rate(size, t) for t in (wall, client_cpu, sim_cpu)]
        print('%-9s %9.1f %10.1f %9.1f %9.1f %10.3f' % ((what,) + tuple(rates) +
                                                       (min(rates[1:]), wall)))
    if framed:
        for what, (wall, client_cpu, sim_cpu) in (('upload', up), ('download', down)):
            ratios = [rate(size, wall) / framed]
            if bound:
                ratios.append(rate(size, max(client_cpu, sim_cpu)) / bound)
            print('%s: %s (target >= %.2f)%s' % (
                what, ', '.join('%s %.2f of framed' % kv for kv in zip(('wall', 'cpu-bound'),
                                                                      ratios)),
                TARGET, ' met' if min(ratios) >= TARGET else ' MISSED'))
    return 0


if __name__ == '__main__':
    run_main(main, 'transfer_bench')
