#!/usr/bin/env python3
"""Runs every load of the benchmark against its reference, round after round, and writes the
table of RESULTS.md. Started by bench/run.sh, which installs, builds and starts the servers and
passes everything here through the environment (see run.sh for the knobs).

CPU is whole-process from wait4() of every process involved (the service, its watchers, curl,
the C client, sqlite3). The service's wall time runs from the first command of a load to the
console line that ends it; a reference's is its whole run.
"""
import collections
import contextlib
import datetime
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import textwrap
import threading
import time

import steady_server

E = os.environ
WORK = E["BENCH_DIR"]
TMPFS = E["BENCH_TMPFS"]
RESULTS = E["BENCH_RESULTS"]
SERVICE = E["BENCH_SERVICE"]
DLCTL = E["BENCH_DLCTL"]
FETCH = E["BENCH_FETCH"]
RUSAGE = E["BENCH_RUSAGE"]
NGINX = "http://127.0.0.1:%s" % E["BENCH_PORT"]
SLOW_PORT = int(E["BENCH_SLOW_PORT"])
ROUNDS = int(E.get("ROUNDS", "3"))
ROWS = E.get("BENCH_ROWS", "small slow watch many stored big bigtmpfs onehost rate").split()
KIB, MIB = 1024, 1024 * 1024

BIG_MIB = int(E.get("BIG_MIB", "1024"))
SMALL_COUNT, SMALL_KIB = int(E.get("SMALL_COUNT", "1000")), int(E.get("SMALL_KIB", "64"))
MANY_COUNT, MANY_MIB = int(E.get("MANY_COUNT", "200")), int(E.get("MANY_MIB", "4"))
SLOW_COUNT, SLOW_KIB = int(E.get("SLOW_COUNT", "50")), int(E.get("SLOW_KIB", "2048"))
SLOW_RATE_KIB = int(E.get("SLOW_RATE_KIB", "200"))
WATCHERS = int(E.get("WATCHERS", "20"))
STORED = int(E.get("STORED", "100000"))
ONEHOST_COUNT, ONEHOST_KIB = int(E.get("ONEHOST_COUNT", "50")), int(E.get("ONEHOST_KIB", "1024"))
ONEHOST_TIMEOUT_MS = int(E.get("ONEHOST_TIMEOUT_MS", "3000"))
RATE_KIB, RATE_S = int(E.get("RATE_KIB", "200")), float(E.get("RATE_S", "5"))
SETTLE_S = float(E.get("SETTLE_S", "2"))  # quiet time before an idle figure is read

COMPLETED = re.compile(rb'Download update with file: "([^"\n]*)" +status: +"Completed"')
LISTED = re.compile(rb'Download: +uniqueID: [^\n]* status: +"(\w+)"')
LIVE = set()  # processes to end if the benchmark stops half-way


class BenchError(Exception):
    pass


def cpu_seconds(usage):
    return usage.ru_utime + usage.ru_stime


def reap(proc, timeout=60):
    """wait4() for a child started with Popen: (exit status, rusage). Kills it after timeout."""
    killer = threading.Timer(timeout, proc.kill)
    killer.start()
    try:
        _, status, usage = os.wait4(proc.pid, 0)
    finally:
        killer.cancel()
    LIVE.discard(proc)
    proc.returncode = os.waitstatus_to_exitcode(status)
    return proc.returncode, usage


def start_measured(cmd, **kw):
    """Starts a reference under bench/rusage, which measures it; finish_measured() reads that."""
    return spawn([RUSAGE, os.path.join(WORK, "rusage.out")] + cmd, **kw)


def finish_measured(proc):
    """(wall s, CPU s, peak MiB, exit status) of a reference started by start_measured()."""
    status, _ = reap(proc, timeout=3600)
    with open(os.path.join(WORK, "rusage.out")) as f:
        wall, cpu, peak = f.read().split()
    return float(wall), float(cpu), int(peak) / KIB, status


def run(cmd, **kw):
    return finish_measured(start_measured(cmd, **kw))


def spawn(cmd, **kw):
    proc = subprocess.Popen(cmd, **kw)
    LIVE.add(proc)
    return proc


def proc_status(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise BenchError("no %s for %d" % (field, pid))


def process_cpu(pid):
    """CPU seconds the process has used so far, all its threads."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def process_cpu_fine(pid):
    """process_cpu to the nanosecond for its live threads; ended threads count in ticks."""
    ticks = per_thread([pid], "stat", lambda text: sum(map(int, text.rsplit(")", 1)[1].split()[11:13])))
    return cpu_so_far([pid]) + max(0.0, process_cpu(pid) - ticks / os.sysconf("SC_CLK_TCK"))


@contextlib.contextmanager
def cpu_meter(pid):
    """Yields a function giving the CPU seconds pid has used since the with began, to the
    microsecond with its ended threads too: the process is moved into a control group of its own
    (cgroup v2, else v1's cpuacct). Without either, threads that end count in ticks of 10 ms."""
    # (a hierarchy, a file only its root has, the usage file of a group)
    for root, probe, usage in (("/sys/fs/cgroup", "cgroup.controllers", "cpu.stat"),
                               ("/sys/fs/cgroup/unified", "cgroup.controllers", "cpu.stat"),
                               ("/sys/fs/cgroup/cpuacct", "cpuacct.usage", "cpuacct.usage")):
        group = os.path.join(root, "dlm-bench-%d" % pid)
        if not os.path.exists(os.path.join(root, probe)):
            continue
        try:
            os.mkdir(group)
            with open(os.path.join(group, "cgroup.procs"), "w") as f:
                f.write(str(pid))
        except OSError:
            with contextlib.suppress(OSError):
                os.rmdir(group)
            continue

        def used(group=group, usage=usage):
            with open(os.path.join(group, usage)) as f:
                text = f.read()
            if usage == "cpu.stat":
                return int(text.split("usage_usec")[1].split()[0]) / 1e6
            return int(text) / 1e9
        start = used()
        try:
            yield lambda: used() - start
        finally:
            parent = os.path.join(os.path.dirname(group), "cgroup.procs")
            with contextlib.suppress(OSError), open(parent, "w") as f:
                f.write(str(pid))
            with contextlib.suppress(OSError):
                os.rmdir(group)
        return
    start = process_cpu_fine(pid)
    yield lambda: process_cpu_fine(pid) - start


def per_thread(pids, name, parse):
    """The sum of parse(text of /proc/PID/task/TID/name) over every live thread of pids."""
    total = 0
    for pid in pids:
        for task in os.listdir("/proc/%d/task" % pid):
            try:
                with open("/proc/%d/task/%s/%s" % (pid, task, name)) as f:
                    total += parse(f.read())
            except FileNotFoundError:  # the thread has just ended
                pass
    return total


def wakeups(pids):
    """Wake-ups so far: each sleep of a thread ends in a voluntary switch."""
    return per_thread(pids, "status", lambda text: int(text.split("\nvoluntary_ctxt_switches:")[1].split()[0]))


def cpu_so_far(pids):
    """CPU seconds so far, to the nanosecond (a thread's time on the CPU heads its schedstat)."""
    return per_thread(pids, "schedstat", lambda text: int(text.split()[0])) / 1e9


def fresh(path):
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def same_file(path, expected):
    """True when the file at path holds exactly the bytes of expected (a path or bytes)."""
    try:
        with open(path, "rb") as got:
            if isinstance(expected, bytes):
                return got.read() == expected
            with open(expected, "rb") as want:
                while True:
                    a, b = got.read(4 * MIB), want.read(4 * MIB)
                    if a != b:
                        return False
                    if not a:
                        return True
    except FileNotFoundError:
        return False


def verify(pairs, what):
    bad = [p for p, expected in pairs if not same_file(p, expected)]
    if bad:
        raise BenchError("%s: %d of %d files differ, first %s" % (what, len(bad), len(pairs), bad[0]))


class Service:
    """The service with its console on a pipe. A reader thread keeps the console's output in a
    log file and counts the lines the loads wait for, with the time each arrived."""

    def __init__(self, name, stored_db=None, env=None):
        self.db = fresh(os.path.join(WORK, "svc", "db"))
        if stored_db:
            shutil.copy(stored_db, os.path.join(self.db, "dlm_download.db"))
        self.log_path = os.path.join(WORK, "logs", name + ".log")
        self.log = open(self.log_path, "wb")
        self.cond = threading.Condition()
        self.completed = set()
        self.completion_times = []  # arrival of each file's first Completed update
        self.updates = 0
        self.prompts = 0
        self.answers = []  # arrival time of each "No download found."
        self.listed = collections.Counter()
        self.ended = False
        full_env = dict(os.environ, DL_CONSOLE_READER_ENABLE="1", **(env or {}))
        self.started = time.monotonic()
        self.proc = spawn([SERVICE], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, env=full_env)
        self.pid = self.proc.pid
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        fd = self.proc.stderr.fileno()
        pending = b""
        while True:
            chunk = os.read(fd, MIB)
            now = time.monotonic()
            if not chunk:
                break
            self.log.write(chunk)
            data = pending + chunk
            cut = data.rfind(b"\n") + 1
            lines, pending = data[:cut], data[cut:]
            if not lines:
                continue
            with self.cond:
                self.updates += lines.count(b"Download update with file: ")
                self.prompts += lines.count(b"Enter your command:")
                for path in COMPLETED.findall(lines):
                    if path not in self.completed:
                        self.completed.add(path)
                        self.completion_times.append(now)
                self.listed.update(LISTED.findall(lines))
                self.answers += [now] * lines.count(b"No download found.")
                self.cond.notify_all()
        with self.cond:
            self.ended = True
            self.log.close()
            self.cond.notify_all()

    def wait(self, predicate, timeout, what):
        deadline = time.monotonic() + timeout
        with self.cond:
            while not predicate():
                left = deadline - time.monotonic()
                if left <= 0 or self.ended:
                    raise BenchError("%s: %s (console output in %s)" % (
                        what, "the service ended" if self.ended else "timed out", self.log_path))
                self.cond.wait(left)

    def send(self, text):
        self.proc.stdin.write(text.encode())
        self.proc.stdin.flush()

    def ready(self):
        self.wait(lambda: self.prompts > 0, 60, "console prompt")
        return self

    def wait_completed(self, count, timeout):
        """Arrival time of the count-th distinct completed file. A failed download is neither
        reported nor logged, so when completions stop, "list" tells whether any is still going."""
        deadline = time.monotonic() + timeout
        stale = 0
        while True:
            seen = len(self.completion_times)
            try:
                self.wait(lambda: len(self.completion_times) > seen, min(5, deadline - time.monotonic()),
                          "completions")
            except BenchError:
                if self.ended:
                    raise
            if len(self.completion_times) >= count:
                return self.completion_times[count - 1]
            if len(self.completion_times) > seen:
                stale = 0
                continue
            states = self.states()
            going = states.get("Progressing", 0) + states.get("Pending", 0)
            stale = stale + 1 if not going else 0
            if stale >= 2 or time.monotonic() >= deadline:
                raise BenchError("%d of %d downloads completed; \"list\" shows %s (console output in %s)"
                                 % (len(self.completion_times), count, states, self.log_path))

    def states(self, timeout=60):
        """Counts of the states "list" shows now; "status -" marks the end of the answer."""
        with self.cond:
            self.listed.clear()
            answered = len(self.answers)
        self.send("list\nstatus -\n")
        self.wait(lambda: len(self.answers) > answered, timeout, "list answer")
        with self.cond:
            return {k.decode(): v for k, v in self.listed.items()}

    def rss(self):
        return proc_status(self.pid, "VmRSS") / KIB

    def quit(self):
        """(CPU s, peak MiB) of the whole run. The peak is the service's own high-water mark: the
        one wait4() gives includes this Python's, which the child started from."""
        peak = proc_status(self.pid, "VmHWM") / KIB
        try:
            self.send("quit\n")
            self.proc.stdin.close()
        except BrokenPipeError:
            pass
        status, usage = reap(self.proc)
        self.reader.join(10)
        if status != 0:
            raise BenchError("service ended with %d (console output in %s)" % (status, self.log_path))
        return cpu_seconds(usage), peak


# ---- content ----

def make_file(path, size):
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path + ".part", "wb") as f:
        for offset in range(0, size, 16 * MIB):
            f.write(os.urandom(min(16 * MIB, size - offset)))
    os.rename(path + ".part", path)


def www(name):
    return os.path.join(WORK, "www", name)


BIG = "big-%dm.bin" % BIG_MIB
SMALL = ["small-%dk/%d.bin" % (SMALL_KIB, i) for i in range(SMALL_COUNT)]
MANY = ["many-%dm/%d.bin" % (MANY_MIB, i) for i in range(MANY_COUNT)]
RATED = ["rate/%d.bin" % i for i in range(2)]  # each larger than RATE_S seconds at twice the limit


def make_content():
    if "big" in ROWS or "watch" in ROWS or "bigtmpfs" in ROWS:
        make_file(www(BIG), BIG_MIB * MIB)
    for name in SMALL if "small" in ROWS else []:
        make_file(www(name), SMALL_KIB * KIB)
    for name in RATED if "rate" in ROWS else []:
        make_file(www(name), int(4 * RATE_KIB * KIB * RATE_S))
    for name in MANY if "many" in ROWS else []:
        make_file(www(name), MANY_MIB * MIB)


def make_stored_db():
    """STORED downloads in the service's table: 70% completed, 30% paused, none to launch."""
    path = os.path.join(WORK, "stored-%d.db" % STORED)
    if os.path.exists(path):
        return path
    script = """
CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, name TEXT,
    contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, totalSize NUMERIC,
    amountDownloaded NUMERIC, startTime NUMERIC);
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < %d)
INSERT INTO downloads SELECT printf('%%032x', i), 'bench', 'f' || i || '.bin',
    '%s/small/' || (i %% 1000) || '.bin', '%s/stored/f' || i || '.bin',
    CASE WHEN i %% 10 < 7 THEN 1 ELSE 4 END, 0, 4194304,
    CASE WHEN i %% 10 < 7 THEN 4194304 ELSE 1048576 END, 1700000000000 + i FROM n;
""" % (STORED - 1, NGINX, TMPFS)
    subprocess.run(["sqlite3", path + ".part"], input=script.encode(), check=True)
    os.rename(path + ".part", path)
    return path


# ---- samples ----

SAMPLES = collections.defaultdict(list)
FAILURES = []


def record(**figures):
    for key, value in figures.items():
        SAMPLES[key].append(value)
        print("  %-22s %10.3f" % (key, value), flush=True)


def both(service_first, service, reference):
    """Service and reference in the order of this round: alternation cancels warm-up effects."""
    for step in ((service, reference) if service_first else (reference, service)):
        step()


# ---- loads ----

def curl(urls, outdir, parallel_max):
    # Immediate: all connections at once, as the service starts every download it is given.
    args = ["curl", "-s", "--parallel", "--parallel-immediate", "--parallel-max", str(parallel_max)]
    for url in urls:
        args += ["-o", os.path.join(outdir, url.rsplit("/", 1)[1]), url]
    return run(args, stderr=subprocess.DEVNULL)


def load_small(first):
    """1,000 x 64 KiB created at once into tmpfs; idle memory before and after them."""
    out = os.path.join(TMPFS, "out")
    urls = ["%s/%s" % (NGINX, n) for n in SMALL]
    pairs = [(os.path.join(out, "%d.bin" % i), www(n)) for i, n in enumerate(SMALL)]

    def ours():
        fresh(out)
        svc = Service("small").ready()
        time.sleep(SETTLE_S)
        before = svc.rss()
        t0 = time.monotonic()
        svc.send("download_path %s/\n" % out + "".join("create %s\n" % u for u in urls))
        t1 = svc.wait_completed(len(urls), 600)
        updates = svc.updates
        time.sleep(SETTLE_S)
        after = svc.rss()
        cpu, peak = svc.quit()
        verify(pairs, "small files, service")
        record(small_wall=t1 - t0, small_cpu=cpu, small_peak=peak, small_idle_before=before,
               small_idle_after=after, small_upm=updates / (len(urls) * SMALL_KIB / KIB))

    def reference():
        fresh(out)
        wall, cpu, peak, status = curl(urls, out, 50)
        verify(pairs, "small files, curl")
        record(curl_small_wall=wall, curl_small_cpu=cpu, curl_small_peak=peak)

    both(first, ours, reference)


def load_slow(first):
    """50 downloads at once, each on its own steady 200 KiB/s link."""
    out = os.path.join(TMPFS, "out")
    size = SLOW_KIB * KIB
    urls = ["http://127.0.0.1:%d/%d/slow%d.bin" % (SLOW_PORT + i, size, i) for i in range(SLOW_COUNT)]
    pairs = [(os.path.join(out, "slow%d.bin" % i), steady_server.content(size)) for i in range(SLOW_COUNT)]
    mib = SLOW_COUNT * size / MIB
    deadline = 3 * size / (SLOW_RATE_KIB * KIB) + 60

    def ours():
        fresh(out)
        svc = Service("slow").ready()
        t0 = time.monotonic()
        svc.send("download_path %s/\n" % out + "".join("create %s\n" % u for u in urls))
        t1 = svc.wait_completed(len(urls), deadline)
        updates = svc.updates
        cpu, peak = svc.quit()
        verify(pairs, "slow links, service")
        record(slow_wall=t1 - t0, slow_cpu_per_mib=cpu * 1000 / mib, slow_upm=updates / mib)

    def reference():
        fresh(out)
        wall, cpu, peak, status = curl(urls, out, SLOW_COUNT)
        verify(pairs, "slow links, curl")
        record(curl_slow_wall=wall, curl_slow_cpu_per_mib=cpu * 1000 / mib)

    both(first, ours, reference)


def load_big(first, with_watchers):
    """One large file from nginx: the service alone, with watchers, the C client and curl."""
    out = fresh(os.path.join(WORK, "out"))
    target = os.path.join(out, "big.bin")

    def ours(watchers):
        fresh(out)
        svc = Service("big-%d" % watchers).ready()
        dlctl = []
        if watchers:
            sock = os.path.join(E["BINDER_SOCKET_DIR"], "com.velta.DLService")

            def connected():  # accepted connections carry the listening socket's path
                with open("/proc/net/unix") as table:
                    return sum(1 for l in table if l.split()[-1] == sock and l.split()[5] == "03")

            base = connected()
            dlctl = [spawn([DLCTL, "watch"], stdout=subprocess.DEVNULL)
                     for _ in range(watchers)]
            # A watcher registers right after it connects; nothing tells when, so allow a moment.
            limit = time.monotonic() + 30
            while connected() < base + watchers and time.monotonic() < limit:
                time.sleep(0.05)
            time.sleep(0.5)
            pids = [p.pid for p in dlctl]
            w0, c0 = wakeups(pids), time.monotonic()
            time.sleep(SETTLE_S)
            idle_wakeups = (wakeups(pids) - w0) / (time.monotonic() - c0)
            # Their start and idle time stay out: the load's own cost is compared.
            watcher_cpu = -cpu_so_far(pids)
        t0 = time.monotonic()
        svc.send("download_path %s/\ncreate %s/%s\n" % (out, NGINX, BIG))
        t1 = svc.wait_completed(1, 600)
        if watchers:
            watcher_cpu += cpu_so_far(pids)
        for p in dlctl:
            p.send_signal(signal.SIGINT)
        for p in dlctl:
            reap(p, 10)
        cpu, peak = svc.quit()
        verify([(os.path.join(out, os.path.basename(BIG)), www(BIG))], "large file, service")
        if watchers:
            record(watch_wall=t1 - t0, watch_cpu=cpu + watcher_cpu, watch_service_cpu=cpu,
                   watch_idle_wakeups=idle_wakeups)
        else:
            record(big_wall=t1 - t0, big_cpu=cpu, big_peak=peak)

    def c_client():
        fresh(out)
        wall, cpu, peak, status = run([FETCH, "127.0.0.1", E["BENCH_PORT"], "/" + BIG, target])
        verify([(target, www(BIG))], "large file, C client")
        record(c_big_wall=wall, c_big_cpu=cpu, c_big_peak=peak)

    def curl_one():
        fresh(out)
        wall, cpu, peak, status = run(["curl", "-s", "-o", target, "%s/%s" % (NGINX, BIG)])
        verify([(target, www(BIG))], "large file, curl")
        record(curl_big_wall=wall, curl_big_cpu=cpu, curl_big_peak=peak)

    steps = [lambda: ours(0), c_client, curl_one]
    if with_watchers:
        steps.insert(1, lambda: ours(WATCHERS))
    for step in (steps if first else reversed(steps)):
        step()


def load_bigtmpfs(first):
    """The large file written to tmpfs, against the C client: the disk's noise left out."""
    out = fresh(os.path.join(TMPFS, "out"))
    target = os.path.join(out, "big.bin")

    def ours():
        fresh(out)
        svc = Service("bigtmpfs").ready()
        t0 = time.monotonic()
        svc.send("download_path %s/\ncreate %s/%s\n" % (out, NGINX, BIG))
        t1 = svc.wait_completed(1, 600)
        cpu, peak = svc.quit()
        verify([(os.path.join(out, os.path.basename(BIG)), www(BIG))], "large file to tmpfs, service")
        record(bigtmpfs_wall=t1 - t0, bigtmpfs_cpu=cpu, bigtmpfs_peak=peak)

    def reference():
        fresh(out)
        wall, cpu, peak, status = run([FETCH, "127.0.0.1", E["BENCH_PORT"], "/" + BIG, target])
        verify([(target, www(BIG))], "large file to tmpfs, C client")
        record(c_bigtmpfs_wall=wall, c_bigtmpfs_cpu=cpu)

    both(first, ours, reference)
    fresh(out)  # a file on tmpfs holds memory


def load_many(first):
    """200 x 4 MiB created at once, written to the disk."""
    out = os.path.join(WORK, "out")
    urls = ["%s/%s" % (NGINX, n) for n in MANY]
    pairs = [(os.path.join(out, "%d.bin" % i), www(n)) for i, n in enumerate(MANY)]

    def ours():
        fresh(out)
        svc = Service("many").ready()
        t0 = time.monotonic()
        svc.send("download_path %s/\n" % out + "".join("create %s\n" % u for u in urls))
        t1 = svc.wait_completed(len(urls), 600)
        cpu, peak = svc.quit()
        verify(pairs, "many files, service")
        record(many_wall=t1 - t0, many_cpu=cpu, many_peak=peak)

    def reference():
        fresh(out)
        wall, cpu, peak, status = curl(urls, out, min(len(urls), 300))
        verify(pairs, "many files, curl")
        record(curl_many_wall=wall, curl_many_cpu=cpu, curl_many_peak=peak)

    both(first, ours, reference)


def load_stored(first, db):
    """Start on a database of 100,000 downloads and answer "list"."""

    def ours():
        svc = Service("stored", stored_db=db)
        svc.send("list\nstatus -\n")  # waits in the pipe until the console reads
        svc.wait(lambda: svc.answers, 600, "list answer")
        answered = svc.answers[0] - svc.started
        peak = proc_status(svc.pid, "VmHWM") / KIB
        listed = sum(svc.listed.values())
        svc.quit()
        if listed != STORED:
            raise BenchError("list showed %d of %d stored downloads" % (listed, STORED))
        record(stored_answer=answered, stored_peak=peak)

    def reference():
        proc = start_measured(["sqlite3", db, "SELECT * FROM downloads;"], stdout=subprocess.PIPE)
        rows = 0
        while chunk := proc.stdout.read(MIB):
            rows += chunk.count(b"\n")
        wall, cpu, peak, status = finish_measured(proc)
        if rows != STORED:
            raise BenchError("sqlite3 printed %d of %d rows" % (rows, STORED))
        record(sqlite_answer=wall, sqlite_peak=peak)

    both(first, ours, reference)


def load_onehost(first):
    """50 downloads from one host on a steady link: how many complete. The transfer time-out is
    shortened so that a download kept waiting behind the host's connections shows within a
    short run."""
    out = os.path.join(TMPFS, "out")
    size = ONEHOST_KIB * KIB
    urls = ["http://127.0.0.1:%d/%d/host%d.bin" % (SLOW_PORT, size, i) for i in range(ONEHOST_COUNT)]
    expected = steady_server.content(size)
    files = [os.path.join(out, "host%d.bin" % i) for i in range(ONEHOST_COUNT)]
    one = size / (SLOW_RATE_KIB * KIB)
    deadline = (ONEHOST_COUNT / 6 + 2) * one + 2 * ONEHOST_TIMEOUT_MS / 1000 + 30

    # As many connections to the host as curl opens (root leaves one slot for other users).
    ini = os.path.join(WORK, "svc", "onehost.ini")
    with open(ini, "w") as f:
        f.write("[General]\ndownload_database_path=%s\nmax_connections_per_host=%d\n"
                % (os.path.join(WORK, "svc", "db"), ONEHOST_COUNT + 1))

    def ours():
        fresh(out)
        svc = Service("onehost", env={"DLM_TRANSFER_TIMEOUT_MS": str(ONEHOST_TIMEOUT_MS),
                                      "DLM_SETTINGS": ini}).ready()
        t0 = time.monotonic()
        svc.send("download_path %s/\n" % out + "".join("create %s\n" % u for u in urls))
        states = {}
        while time.monotonic() - t0 < deadline:  # until no download is waiting or running
            time.sleep(1)
            states = svc.states()
            if not states.get("Progressing") and not states.get("Pending"):
                break
        done = sum(same_file(f, expected) for f in files)
        # All completed: the last completion ends the load; otherwise the poll that saw the end.
        wall = (svc.completion_times[-1] if done == len(files) else time.monotonic()) - t0
        svc.quit()
        print("  states at the end: %s" % states)
        record(onehost_done=done, onehost_wall=wall)

    def reference():
        fresh(out)
        wall, cpu, peak, status = curl(urls, out, ONEHOST_COUNT)
        record(curl_onehost_done=sum(same_file(f, expected) for f in files), curl_onehost_wall=wall)

    both(first, ours, reference)


# The CPU of a limited download is measured on a steady link at four times the limit: on
# loopback from nginx, curl --limit-rate reads the whole file before it checks its rate.
LINK_PORT = SLOW_PORT + max(SLOW_COUNT, 1) + 1
LINKED = "http://127.0.0.1:%d/%d/linked.bin" % (LINK_PORT, int(4 * RATE_KIB * KIB * RATE_S))


@contextlib.contextmanager
def fast_link():
    server = spawn([sys.executable, os.path.join(os.path.dirname(__file__), "steady_server.py"),
                    str(LINK_PORT), "1", str(4 * RATE_KIB * KIB), "16384"], stdout=subprocess.PIPE)
    try:
        if server.stdout.readline().strip() != b"ready":
            raise BenchError("the steady link on port %d did not start" % LINK_PORT)
        yield
    finally:
        server.kill()
        server.wait()
        LIVE.discard(server)


def load_rate(first):
    """Limits held on loopback: one download limited to RATE_KIB, then two under an overall limit
    of twice that, one of them limited to half of it; average rates over RATE_S seconds. Then
    the CPU per MiB of one limited download to its end, against curl --limit-rate."""
    out, limit = os.path.join(TMPFS, "out"), RATE_KIB * KIB
    urls = ["%s/%s" % (NGINX, n) for n in RATED]
    ini = os.path.join(WORK, "svc", "rate.ini")
    with open(ini, "w") as f:
        f.write("[General]\ndownload_database_path=%s\nrate_limit=%d\n"
                % (os.path.join(WORK, "svc", "db"), 2 * limit))
    files = [os.path.join(out, n.rsplit("/", 1)[1]) for n in RATED]
    linked_file = os.path.join(out, LINKED.rsplit("/", 1)[1])

    def create(url, rate):
        run([DLCTL, "create", url, "--client", "shell", "--rate", str(rate)])

    def averages(svc, creates):
        fresh(out)
        svc.ready()
        svc.send("download_path %s/\n" % out)
        time.sleep(0.5)
        t0 = time.monotonic()
        for url, rate in creates:
            create(url, rate)
        time.sleep(RATE_S)
        got = [os.path.getsize(f) if os.path.exists(f) else 0 for f in files]
        elapsed = time.monotonic() - t0
        svc.quit()
        return [g / elapsed / limit for g in got]

    def change():
        """A running download's limit raised from half the limit to twice it: seconds from the
        command to where the lines fitted to its file's size before and from 1.5 s after the
        change meet (chunked reads average out; no window lags), and the new rate / its limit
        until the file is complete."""
        fresh(out)
        svc = Service("ratechange").ready()
        svc.send("download_path %s/\n" % out)
        time.sleep(0.5)
        run([DLCTL, "create", urls[0], "--client", "shell", "--id", "change", "--rate", str(limit // 2)])
        start, t0, samples = time.monotonic(), None, []
        while time.monotonic() - start < 6:
            if t0 is None and time.monotonic() - start >= 2.5:
                t0 = time.monotonic()
                run([DLCTL, "rate", "change", str(2 * limit)])
            size = os.path.getsize(files[0]) if os.path.exists(files[0]) else 0
            samples.append((time.monotonic(), size))
            time.sleep(0.05)
        svc.quit()
        (a1, b1), (a2, b2) = (statistics.linear_regression(*zip(*part)) for part in (
            [p for p in samples if start + 0.5 <= p[0] < t0],
            [p for p in samples if p[0] >= t0 + 1.5 and p[1] < os.path.getsize(www(RATED[0]))]))
        return (b1 - b2) / (a2 - a1) - t0, a2 / (2 * limit)

    def ours():
        took, held = change()
        record(rate_change_s=took, rate_changed=held)
        one = averages(Service("rate"), [(urls[0], limit)])
        two = averages(Service("rate2", env={"DLM_SETTINGS": ini}), [(urls[0], 0), (urls[1], limit // 2)])
        fresh(out)
        svc = Service("ratecpu").ready()
        svc.send("download_path %s/\n" % out)
        time.sleep(0.5)
        # From the request to the end of the download: the service's start-up is not the limit's.
        # In ticks of 10 ms the service's few tens of ms here would read a quarter off either way.
        with fast_link(), cpu_meter(svc.pid) as used:
            t0 = time.monotonic()
            create(LINKED, limit)
            done = svc.wait_completed(1, 4 * RATE_S * 4 + 60)
            cpu = used()
        svc.quit()
        size = os.path.getsize(linked_file)
        record(rate_one=one[0], rate_two=(two[0] + two[1]) / 2, rate_two_limited=two[1] * 2,
               rate_cpu_per_mib=cpu * 1000 / (size / MIB), rate_whole=size / (done - t0) / limit)

    def reference():
        fresh(out)
        with fast_link():
            wall, cpu, peak, status = run(["curl", "-s", "--limit-rate", "%dk" % RATE_KIB, "-o", linked_file, LINKED])
        size = os.path.getsize(linked_file)
        record(curl_rate_cpu_per_mib=cpu * 1000 / (size / MIB), curl_rate_whole=size / wall / limit)
        # curl 7.88 does not hold its limit even here (it reads what the link sends); wget does.
        fresh(out)
        with fast_link():
            wall, cpu, peak, status = run(["wget", "-q", "--limit-rate=%dk" % RATE_KIB, "-O", linked_file, LINKED])
        size = os.path.getsize(linked_file)
        record(wget_rate_cpu_per_mib=cpu * 1000 / (size / MIB), wget_rate_whole=size / wall / limit)

    both(first, ours, reference)


# ---- report ----

def describe():
    return {
        "small": "%s x %d KiB created at once, written to tmpfs" % (f"{SMALL_COUNT:,}", SMALL_KIB),
        "idle": "idle after %s finished downloads" % f"{SMALL_COUNT:,}",
        "slow": "%d downloads on steady %d KiB/s links (%d KiB each, %d-byte chunks)" % (
            SLOW_COUNT, SLOW_RATE_KIB, SLOW_KIB, int(E.get("SLOW_CHUNK", "4096"))),
        "watch": "%d MiB + %d `dlctl watch`" % (BIG_MIB, WATCHERS),
        "many": "%d x %d MiB at once" % (MANY_COUNT, MANY_MIB),
        "stored": "start with %s stored" % f"{STORED:,}",
        "big": "%d MiB, one file" % BIG_MIB,
        "bigtmpfs": "%d MiB, one file, written to tmpfs" % BIG_MIB,
        "rate": "limited on loopback to %d KiB/s (one; a change from %d to %d KiB/s), %d KiB/s "
                "overall (two), over %g s" % (RATE_KIB, RATE_KIB // 2, 2 * RATE_KIB, 2 * RATE_KIB, RATE_S),
        "onehost": "%d downloads from one host (%d KiB each at %d KiB/s, time-out %d ms, "
                   "max_connections_per_host=%d)" % (
            ONEHOST_COUNT, ONEHOST_KIB, SLOW_RATE_KIB, ONEHOST_TIMEOUT_MS, ONEHOST_COUNT + 1),
    }


# (row, load, measure, service samples, reference label, reference samples, target)
# A target is ("ratio", x): median of the per-round ratios <= x; ("max", x) or ("min", x): the
# service's median against an absolute bound.
TABLE = [
    ("small", "small", "wall s", "small_wall", "curl --parallel", "curl_small_wall", ("ratio", 2.0)),
    ("small", "small", "CPU s", "small_cpu", "curl --parallel", "curl_small_cpu", ("ratio", 2.5)),
    ("small", "small", "peak MiB", "small_peak", "curl --parallel", "curl_small_peak", ("max", 24)),
    ("small", "small", "updates per MiB", "small_upm", None, None, None),
    ("small", "idle", "resident MiB", "small_idle_after", "service before them", "small_idle_before", ("max", 20)),
    ("slow", "slow", "CPU ms per MiB", "slow_cpu_per_mib", "curl --parallel", "curl_slow_cpu_per_mib", ("ratio", 1.0)),
    ("slow", "slow", "updates per MiB", "slow_upm", None, None, ("max", 4)),
    ("slow", "slow", "wall s", "slow_wall", "curl --parallel", "curl_slow_wall", None),
    ("watch", "watch", "wall s", "watch_wall", "service alone", "big_wall", ("ratio", 1.15)),
    ("watch", "watch", "CPU s, service + watchers", "watch_cpu", "service alone", "big_cpu", ("ratio", 1.3)),
    ("watch", "watch", "CPU s, service only", "watch_service_cpu", "service alone", "big_cpu", None),
    ("watch", "watch", "wake-ups/s of idle watchers", "watch_idle_wakeups", None, None, ("max", 0)),
    ("many", "many", "peak MiB", "many_peak", "curl --parallel", "curl_many_peak", ("max", 32)),
    ("many", "many", "wall s", "many_wall", "curl --parallel", "curl_many_wall", ("ratio", 0.9)),
    ("many", "many", "CPU s", "many_cpu", "curl --parallel", "curl_many_cpu", None),
    ("stored", "stored", "s to answer `list`", "stored_answer", "sqlite3 select *", "sqlite_answer", ("max", 0.3)),
    ("stored", "stored", "peak MiB", "stored_peak", "sqlite3 select *", "sqlite_peak", ("max", 48)),
    ("big", "big", "wall s", "big_wall", "C client (2 MiB read/write)", "c_big_wall", ("ratio", 1.3)),
    ("big", "big", "CPU s", "big_cpu", "C client (2 MiB read/write)", "c_big_cpu", ("ratio", 1.3)),
    ("big", "big", "wall s", "big_wall", "curl", "curl_big_wall", ("ratio", 0.8)),
    ("big", "big", "peak MiB", "big_peak", "curl", "curl_big_peak", ("max", 24)),
    ("bigtmpfs", "bigtmpfs", "wall s", "bigtmpfs_wall", "C client (2 MiB read/write)", "c_bigtmpfs_wall", ("ratio", 1.2)),
    ("bigtmpfs", "bigtmpfs", "CPU s", "bigtmpfs_cpu", "C client (2 MiB read/write)", "c_bigtmpfs_cpu", None),
    ("rate", "rate", "one: average / its limit", "rate_one", None, None, ("min", 0.9)),
    ("rate", "rate", "two: average / the overall limit", "rate_two", None, None, ("min", 0.9)),
    ("rate", "rate", "two: the one limited below its share, average / its limit", "rate_two_limited", None, None, ("min", 0.9)),
    ("rate", "rate", "s from a limit change on a running download to its new rate", "rate_change_s", None, None, ("max", 1.0)),
    ("rate", "rate", "after the change: average / its new limit", "rate_changed", None, None, ("min", 0.9)),
    ("rate", "rate", "CPU ms per MiB at the limit", "rate_cpu_per_mib", "curl --limit-rate", "curl_rate_cpu_per_mib", ("ratio", 1.0)),
    ("rate", "rate", "the same download, average to its end / the limit", "rate_whole", "curl --limit-rate", "curl_rate_whole", None),
    ("rate", "rate", "CPU ms per MiB at the limit", "rate_cpu_per_mib", "wget --limit-rate", "wget_rate_cpu_per_mib", None),
    ("rate", "rate", "the same download, average to its end / the limit", "rate_whole", "wget --limit-rate", "wget_rate_whole", None),
    ("onehost", "onehost", "completed", "onehost_done", "curl --parallel", "curl_onehost_done", ("min", ONEHOST_COUNT)),
    ("onehost", "onehost", "wall s", "onehost_wall", "curl --parallel", "curl_onehost_wall", ("ratio", 1.2)),
]


def fmt(v):
    return "%.0f" % v if abs(v) >= 100 else "%.3g" % v


def spread(values):
    if not values:
        return "-"
    return "%s / %s / %s" % (fmt(min(values)), fmt(statistics.median(values)), fmt(max(values)))


def report():
    labels = describe()
    lines = [
        "| load | measure | service min / median / max | reference | reference min / median / max"
        " | ratio median (min-max) | target | met |",
        "|---|---|---|---|---|---|---|---|",
    ]
    for row, load, measure, ours, ref_label, ref, target in TABLE:
        if row not in ROWS:
            continue
        s, r = SAMPLES.get(ours, []), SAMPLES.get(ref, []) if ref else []
        ratios = [a / b for a, b in zip(s, r) if b]
        ratio = "%.2f (%.2f-%.2f)" % (statistics.median(ratios), min(ratios), max(ratios)) if ratios else ""
        goal, met = "", ""
        if target:
            kind, bound = target
            value = statistics.median(ratios) if kind == "ratio" and ratios else (
                statistics.median(s) if s and kind != "ratio" else None)
            goal = {"ratio": "ratio <= %g", "max": "<= %g", "min": ">= %g"}[kind] % bound
            if value is not None:
                met = "yes" if (value >= bound if kind == "min" else value <= bound) else "**no**"
        lines.append("| %s | %s | %s | %s | %s | %s | %s | %s |" % (
            labels[load], measure, spread(s), ref_label or "", spread(r) if ref else "", ratio, goal, met))
    return lines


def write_results():
    header = [
        "# Benchmark results",
        "",
        "Written by `bench/run.sh` on %s, %d cores, %d round(s); in every round the service and its"
        % (datetime.date.today().isoformat(), os.cpu_count(), ROUNDS),
        "reference run one after the other, in alternating order. nginx on 127.0.0.1 serves the files,",
        "`bench/steady_server.py` the steady links. Ratios are service / reference of the same round.",
        "",
    ]
    notes = [""] + textwrap.wrap(
        "CPU is whole-process from wait4(); the watchers' (all their threads, from the first command "
        "to the end of the download) is added to the service's; at a rate limit the service's counts "
        "from its request to the end of the download (a control group of its own, to the microsecond "
        "with the threads that ended), curl's whole run. Idle wake-ups are the watchers' "
        "voluntary context switches while no download runs. Peak memory is a process's own "
        "high-water mark (the service's VmHWM just before it quits, a reference's from wait4() under "
        "`bench/rusage`); idle memory is the service's resident size %g s after a load ends. The "
        "service's wall time runs from its first console command to the console line that ends the "
        "load (the last \"Completed\" update; for the stored downloads, the end of the answer to "
        "`list`, counted from the start of the process); a reference's wall time is its whole run. "
        "Updates are the console's update lines. Every file is compared with its source after each "
        "run. The downloads from one host run with a short transfer time-out, so that a download "
        "left waiting behind the host's busy connections shows within a short run." % SETTLE_S, 96)
    notes += (["", "Runs that failed (their figures are missing above):"] + ["- " + f for f in FAILURES]
              if FAILURES else [])
    findings = ""
    if os.path.exists(RESULTS):
        with open(RESULTS) as f:
            text = f.read()
        at = text.find("\n## Findings")
        findings = text[at:] if at >= 0 else ""
    with open(RESULTS, "w") as f:
        f.write("\n".join(header + report() + notes) + "\n" + findings)


def end_leftovers():
    for proc in list(LIVE):
        proc.kill()
        reap(proc)


def main():
    make_content()
    db = make_stored_db() if "stored" in ROWS else None
    os.makedirs(os.path.join(WORK, "logs"), exist_ok=True)
    for round_ in range(ROUNDS):
        first = round_ % 2 == 0
        print("== round %d of %d" % (round_ + 1, ROUNDS), flush=True)
        for row in ROWS:
            print("-- %s" % row, flush=True)
            try:
                run_load(row, first, db)
            except BenchError as error:  # the other loads still say something
                FAILURES.append("round %d, %s: %s" % (round_ + 1, row, error))
                print("  FAILED: %s" % error, flush=True)
                end_leftovers()
    write_results()
    print("\n".join(report()))


def run_load(row, first, db):
    if row in ("big", "watch"):
        # One load measures both: the service alone is the reference of the watched one.
        if row == "watch" or "watch" not in ROWS:
            load_big(first, with_watchers="watch" in ROWS)
    elif row == "stored":
        load_stored(first, db)
    elif row == "bigtmpfs":
        load_bigtmpfs(first)
    else:
        {"small": load_small, "slow": load_slow, "many": load_many, "onehost": load_onehost,
         "rate": load_rate}[row](first)


if __name__ == "__main__":
    try:
        main()
    except BenchError as error:
        sys.exit("bench: %s" % error)
    finally:
        end_leftovers()
