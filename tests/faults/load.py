#!/usr/bin/env python3
"""Stresses services and clients in processes of their own, and prints figures; fails when one is out of bounds.

    load.py killing  PEER [--count 300]      SIGKILL of either side at random instants, and a frozen client
    load.py slow     PEER [--count 200000]   a subscriber that stopped reading beside three that read
    load.py crossing PEER [--count 50]       large transfers both ways at once, and one frozen of four
    load.py soak     PEER [--seconds 60]     mixed traffic of 16 clients, one slow, one that starts again and again

PEER is the program nipc_peer. All take --seed N.
"""
import argparse
import os
import random
import select
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

PATIENCE = 30
UUID = 41501

problems = []


def expect(good, what):
    if not good:
        problems.append(what)
        print("FAILED:", what, flush=True)


def figure(name, text):
    print("%-52s %s" % (name, text), flush=True)


class Peer:
    """One process of nipc_peer. It dies with this one."""
    program = None
    living = set()

    def __init__(self, role, uuid=UUID):
        self.process = subprocess.Popen([Peer.program, role, str(uuid)], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.buffer = b""
        self.lines = []
        self.pid = self.process.pid
        Peer.living.add(self)

    def tell(self, *words):
        self.process.stdin.write((" ".join(map(str, words)) + "\n").encode())
        self.process.stdin.flush()

    def read(self, timeout):
        """Takes what it says within that time; False when it says nothing."""
        if not select.select([self.process.stdout], [], [], max(timeout, 0))[0]:
            return False
        data = os.read(self.process.stdout.fileno(), 65536)
        *lines, self.buffer = (self.buffer + data).split(b"\n")
        self.lines += [line.decode() for line in lines]
        return bool(data)

    def hear(self, start, patience=PATIENCE):
        """The rest of the next line that begins so, or None."""
        deadline = time.monotonic() + patience
        while True:
            for i, line in enumerate(self.lines):
                if line.startswith(start):
                    del self.lines[:i + 1]
                    return line[len(start):].strip()
            if time.monotonic() > deadline or not self.read(deadline - time.monotonic()):
                return None

    def answer(self, order, start, patience=PATIENCE):
        self.tell(*order.split())
        said = self.hear(start, patience)
        if said is None:
            raise SystemExit("FAILED: %s hangs: no answer to %s" % (self.process.args, order))
        return said

    def report(self):
        words = ("bad " + self.answer("report", "bad ")).split()
        return {name: int(value) for name, value in zip(words[0::2], words[1::2])}

    def calls(self, count):
        """count, p50, p99 and maximum in microseconds of synchronous calls."""
        return [float(word) for word in self.answer("call %d" % count, "calls ", 120).split()]

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()
        Peer.living.discard(self)

    def freeze(self):
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def held(self):
        """Descriptors, threads. Without the one timer that a process makes when it first gathers frames, and keeps."""
        directory = "/proc/%d/fd/" % self.pid
        count = timers = 0
        for number in os.listdir(directory):
            try:
                timers += os.readlink(directory + number) == "anon_inode:[timerfd]"
                count += 1
            except OSError:
                pass
        return (count - min(timers, 1), len(os.listdir("/proc/%d/task" % self.pid)))

    def resident(self):
        with open("/proc/%d/status" % self.pid) as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def service(uuid=UUID):
    peer = Peer("service", uuid)
    if peer.hear("up") is None:
        raise SystemExit("FAILED: a service does not start")
    return peer


def client(uuid=UUID):
    """One that is served."""
    peer = Peer("client", uuid)
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        peer.tell("call 1")
        if peer.hear("served ", 0.3) is not None:
            peer.hear("calls ")
            return peer
    raise SystemExit("FAILED: a client is not served")


def all_succeed(peer, count):
    failed = peer.report()["failures"]
    peer.calls(count)
    return peer.report()["failures"] == failed


def eventually(condition, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def clean(peers, what):
    for peer in peers:
        expect(peer.report()["bad"] == 0, "%s: a payload that differs from what was sent" % what)


# Killing

MODES = {  # what a client does when it is killed, and how often that is tried
    "connecting": ([], 3),
    "synchronous": (["sync"], 3),
    "asynchronous": (["async"], 3),
    "large request under way": (["large"], 3),
    "mixed": (["sync", "async", "large"], 3),
    # Costs the service three seconds each: it waits for the acknowledgement of a large answer.
    "acknowledgement pending": (["fetch"], 0.1),
}


def kill_clients(names):
    """Some at once, each at an instant of its own."""
    victims = []
    for name in names:
        peer = Peer("client")
        if MODES[name][0]:
            peer.tell("ask", 0, *MODES[name][0])
        victims.append((time.monotonic() + random.expovariate(1 / 0.03), peer))
    for instant, peer in sorted(victims, key=lambda victim: victim[0]):
        time.sleep(max(0, min(instant - time.monotonic(), 0.3)))
        peer.kill()


def kill_services(count, survivor):
    """Over and over; the client that survives is served by the last."""
    for _ in range(count - 1):
        victim = Peer("service", UUID + 1)
        if random.random() < 0.8:
            victim.hear("up")
        time.sleep(min(random.expovariate(1 / 0.03), 0.3))
        victim.kill()
    if random.random() < 0.04:
        time.sleep(random.choice([1.05, 3]))  # Long enough for the survivor to try ever more seldom.
    last = service(UUID + 1)
    start = time.monotonic()
    served = survivor.hear("served %d" % last.pid)
    expect(served is not None, "a client is not served again after its service was killed")
    took = (time.monotonic() - start) * 1000
    time.sleep(min(random.expovariate(1 / 0.03), 0.3))
    last.kill()
    return took


def killing(options):
    steady = service()
    beside = client()
    survivor = Peer("client", UUID + 1)
    survivor.tell("ask 1000 sync")
    survivor.tell("ask 5000 async large fetch")
    names = random.choices(list(MODES), [weight for _, weight in MODES.values()], k=options.count)
    baseline = None
    recovered = []
    killed = {"client": 0, "service": 0}
    while sum(killed.values()) < options.count:
        group = [names.pop() for _ in range(min(len(names), random.randint(1, 8)))]
        kill_clients(group)
        killed["client"] += len(group)
        count = min(random.randint(1, 8), max(options.count - sum(killed.values()), 1))
        recovered.append(kill_services(count, survivor))
        killed["service"] += count
        expect(all_succeed(beside, 20), "a client beside is not served")
        survivor.answer("calls", "calls ")  # or it would keep the figures of each
        if baseline is None and sum(killed.values()) >= min(1000, options.count // 3):
            baseline = held_at_rest(steady, beside, survivor)
    after = held_at_rest(steady, beside, survivor, baseline)
    clean([steady, beside, survivor], "killing")
    figure("clients and services killed", "%(client)d and %(service)d" % killed)
    figure("service up again to survivor served, ms: median, worst", "%.1f %.1f" % (statistics.median(recovered), max(recovered)))
    for name, then, now in zip(("service", "client beside", "surviving client"), baseline, after):
        figure("%s: descriptors, threads, KiB" % name, "%d %d %d then, %d %d %d at the end" % (then + now))
        expect(now[:2] <= then[:2], "%s holds more descriptors or threads than before" % name)
        expect(now[2] - then[2] < 1024, "%s grew by %d KiB" % (name, now[2] - then[2]))
    frozen_client(steady, beside)


def held_at_rest(steady, beside, survivor, expected=None):
    """Of the service and the clients, when nobody else is there: the least that is seen in a while."""
    last = service(UUID + 1)
    survivor.hear("served %d" % last.pid)
    seen = []

    def look():
        seen.append([peer.held() + (peer.resident(),) for peer in (steady, beside, survivor)])
        if expected is None:
            return len(seen) >= 40
        return all(now[:2] <= then[:2] for now, then in zip(least(), expected))

    def least():
        return [min(look[i] for look in seen) for i in range(3)]
    eventually(look, 10)
    last.kill()
    return least()


def frozen_client(steady, beside):
    """What a client costs another that is frozen in the middle of its traffic."""
    frozen = client()
    frozen.tell("ask 2000 sync async large")
    ratios = []
    for _ in range(5):
        usual = beside.calls(2000)[2]
        frozen.freeze()
        ratios.append((beside.calls(2000)[2], usual))
        frozen.thaw()
    frozen.kill()
    p99 = [statistics.median(column) for column in zip(*ratios)]
    figure("p99 of a call, us: beside a frozen client, usually", "%.0f %.0f" % tuple(p99))
    expect(p99[0] <= 2 * p99[1] + 50, "a frozen client slows the others")


# Slow consumers

def slow(options):
    publisher = service()
    readers = [client() for _ in range(3)]
    first = 1
    usual = run_events(publisher, first, options.count)
    stopped = client()
    allocated = publisher.report()["allocated"]
    resident = publisher.resident()
    stopped.freeze()
    beside = run_events(publisher, first + options.count, options.count)
    with_slow = publisher.report()
    grown = publisher.resident() - resident
    eventually(lambda: all(r.report()["events"] + r.report()["lost"] == 2 * options.count for r in readers))
    received = [reader.report() for reader in readers]
    figure("p99 of publishing to 3 that read, us", "%.1f" % usual[2])
    figure("p99 beside one that stopped reading, us", "%.1f" % beside[2])
    figure("events each reader got, and lost", " ".join("%(events)d/%(lost)d" % r for r in received))
    figure("sends that failed, log lines, metrics", "%d %d" % (with_slow["lines"], with_slow["unsent"]))
    figure("queued for it, KiB of heap; resident KiB", "%d; %d" % ((with_slow["allocated"] - allocated) // 1024, grown))
    stopped.thaw()
    expect(eventually(lambda: stopped.report()["events"] + with_slow["unsent"] == options.count, 60),
           "an event is neither received nor a failed send")
    figure("events that the slow one got when it read again", "%d" % stopped.report()["events"])
    stopped.freeze()
    run_events(publisher, first + 2 * options.count, min(options.count, 5000))
    stopped.kill()
    expect(eventually(lambda: publisher.report()["allocated"] - allocated < 256 << 10),
           "what was queued for one that left is not given back")
    figure("kept after it left, KiB of heap", "%d" % ((publisher.report()["allocated"] - allocated) // 1024))
    expect(beside[2] <= 2 * usual[2] + 50, "one that stopped reading slows the publisher")
    expect(all(r["lost"] == 0 and r["events"] == 2 * options.count for r in received), "a reader lost events")
    expect(with_slow["lines"] == with_slow["unsent"] > 0, "not every lost event is named")
    expect(with_slow["allocated"] - allocated < 2304 << 10, "more is queued than is documented")
    clean([publisher] + readers, "slow")


def run_events(publisher, first, count):
    said = publisher.answer("publish %d %d 1024 3 0" % (first, count), "published ", 600)
    return [float(word) for word in said.split()]


# Crossing transfers

def crossing(options):
    server = service()
    peer = client()
    failed = peer.report()["failures"]
    start = time.monotonic()
    peer.tell("request", "large", options.count)
    server.answer("publish 1 %d 40000 0 0" % options.count, "published ", 300)
    peer.hear("requested", 300)
    spent = time.monotonic() - start
    arrived = eventually(lambda: peer.report()["large"] == peer.report()["answers"] == options.count, 10)
    expect(arrived and peer.report()["failures"] == failed, "transfers that cross do not both arrive")
    figure("transfers both ways at once, ms each", "%.2f (%d each way)" % (spent * 1000 / options.count, options.count))
    peer.tell("cross")
    said = peer.hear("crossed ")
    figure("from inside both listeners: the client's own", "%s ms" % said)
    # Who began first times out; the other just may be served then.
    expect(said is not None and 2500 < int(said.split()[-1]) < 4500,
           "a transfer from inside both listeners does not wait for the time limit")
    expect(all_succeed(peer, 10), "calls fail after transfers crossed")
    others = [peer] + [client() for _ in range(2)]
    frozen = client()
    before = [other.report()["large"] for other in others]
    frozen.freeze()
    said = server.answer("publish 1000 3 40000 0 0", "published ", 60).split()
    figure("large event with one frozen of four, ms: median, worst", "%.0f %.0f" %
           (float(said[1]) / 1000, float(said[3]) / 1000))
    expect(2900 < float(said[3]) / 1000 < 3500, "a frozen client does not cost the documented three seconds")
    got = eventually(lambda: all(o.report()["large"] == b + 3 for o, b in zip(others, before)), 5)
    expect(got, "a client beside the frozen one lost a large event")
    frozen.kill()
    said = server.answer("publish 2000 3 40000 0 0", "published ").split()
    figure("after the frozen one left, ms: worst", "%.1f" % (float(said[3]) / 1000))
    expect(float(said[3]) / 1000 < 1000, "a client that left still costs time")
    clean([server] + others, "crossing")


# Soak

def start_traffic(peer, pause):
    peer.tell("ask", pause, *(["sync"] * 8 + ["async"]))
    peer.tell("ask", 20 * pause, "large", "fetch")


def slope(samples):
    """Growth in KiB a minute."""
    times, values = zip(*samples)
    mean_time, mean = statistics.fmean(times), statistics.fmean(values)
    spread = sum((t - mean_time) ** 2 for t in times)
    return 60 * sum((t - mean_time) * (v - mean) for t, v in samples) / spread if spread else 0


def soak(options):
    server = service()
    clients = [client() for _ in range(14)]
    laggard = client()
    restarting = client()
    # Half the time that passes between two events. With all of it, its queue is as long as chance will have it, and so
    # is what everybody waits for when it is sent something large.
    laggard.tell("slow 10000")
    for peer in clients + [laggard]:
        peer.tell("explain", 1)  # The service stays, so that no call should fail.
    for peer in clients + [laggard, restarting]:
        start_traffic(peer, 20000)
    server.tell("keep 1 100000000 1024 0 20")
    part = options.seconds / 6
    begun = time.monotonic()
    watched = [server] + clients
    samples = {peer: [] for peer in watched}
    held, first, next_restart = None, None, 0
    failed = sum(peer.report()["failures"] for peer in clients)
    for peer in clients:
        peer.answer("calls", "calls ")
    while time.monotonic() < begun + options.seconds:
        time.sleep(min(1, part / 10))
        elapsed = time.monotonic() - begun
        if elapsed > next_restart:
            restarting.kill()
            restarting = client()
            start_traffic(restarting, 20000)
            next_restart = elapsed + random.uniform(0.5, 5)
        if elapsed < part:
            continue
        if first is None:
            first = p99_of(clients)
            held = least_held(watched)
        for peer in watched:
            samples[peer].append((elapsed, peer.resident()))
        if elapsed < 5 * part:
            for peer in clients:
                peer.answer("calls", "calls ")
    last = p99_of(clients)
    for peer in clients + [laggard]:
        peer.tell("explain", 0)
    restarting.kill()
    now = least_held(watched)
    gained = ["%s, then %s" % pair for pair in zip(held, now) if pair[1][0] > pair[0][0] or pair[1][1] > pair[0][1]]
    expect(not gained, "descriptors or threads were gained: " + "; ".join(gained))
    growth = [slope(samples[peer]) for peer in watched]
    long_run = options.seconds >= 1800
    figure("p99 of a call, us: first sixth, last sixth", "%.0f %.0f" % (first, last))
    figure("growth, KiB a minute: service, worst client", "%.2f %.2f" % (growth[0], max(growth[1:])))
    figure("descriptors, threads of the service", "%d %d then, %d %d at the end" % (held[0] + now[0]))
    figure("events, calls that failed", "%d, %d" % (clients[0].report()["events"],
                                                    sum(peer.report()["failures"] for peer in clients) - failed))
    expect(last <= first * 1.2 + 50 or not long_run, "calls became slower")
    expect(max(growth) < (1 if long_run else 1024), "memory grows")
    expect(all(peer.report()["lost"] == 0 for peer in clients), "events were lost")
    clean(watched + [laggard], "soak")


def least_held(peers):
    """By each, amid its traffic: what is under way comes on top at times."""
    looks = []
    for _ in range(40):
        looks.append([peer.held() for peer in peers])
        time.sleep(0.05)
    return [(min(look[i][0] for look in looks), min(look[i][1] for look in looks)) for i in range(len(peers))]


def p99_of(clients):
    return statistics.median(float(peer.answer("calls", "calls ").split()[2]) for peer in clients)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    kinds = {"killing": (killing, 300), "slow": (slow, 200000), "crossing": (crossing, 50), "soak": (soak, 0)}
    parser.add_argument("kind", choices=kinds)
    parser.add_argument("peer")
    parser.add_argument("--count", type=int)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    options = parser.parse_args()
    run, usual = kinds[options.kind]
    options.count = options.count or usual
    random.seed(options.seed)
    Peer.program = options.peer
    os.environ["NEX_NIPC_DIR"] = directory = tempfile.mkdtemp(prefix="nipcload.")
    figure("seed", options.seed)
    begun = time.monotonic()
    try:
        run(options)
    finally:
        for peer in list(Peer.living):
            peer.kill()
        shutil.rmtree(directory, ignore_errors=True)
    figure("%s: seconds, problems" % options.kind, "%.0f, %d" % (time.monotonic() - begun, len(problems)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
