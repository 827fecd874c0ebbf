#!/usr/bin/env python3
"""Makes every place that calls the system fail in every way it can, one at a time, and prints the table.

    faults.py PROGRAM [--short] [--seed N] [--jobs N] [--only TEXT]

PROGRAM is nipc_faults. A place of the sources that is in no table of results, and a function of the C library that
stands in none of the lists below, is a failure. In the short form each place fails at its first pass only.
"""
import argparse
import collections
import concurrent.futures
import errno
import random
import re
import subprocess
import sys

NO_DESCRIPTOR = ["EMFILE", "ENFILE", "ENOMEM"]
FILE_SYSTEM = ["ENOMEM", "EACCES", "ENOSPC", "EROFS", "ELOOP"]

# How a call can fail though its arguments are good.
ERRORS = {
    "accept4": NO_DESCRIPTOR + ["ENOBUFS", "ECONNABORTED", "EINTR", "EAGAIN"],
    "bind": FILE_SYSTEM + ["EADDRINUSE"],
    "chmod": ["EPERM", "EROFS"],
    "chown": ["EPERM", "EROFS"],
    "connect": ["EINTR", "EAGAIN", "ECONNREFUSED", "ENOENT", "EACCES", "ENOMEM", "ENOBUFS"],
    "epoll_create1": NO_DESCRIPTOR,
    "epoll_ctl": ["ENOMEM", "ENOSPC"],
    "epoll_wait": ["EINTR"],
    "eventfd": NO_DESCRIPTOR,
    "fallocate": ["EINTR", "ENOSPC", "ENOMEM"],
    "fchmod": ["EPERM", "EROFS"],
    "fchown": ["EPERM", "EROFS"],
    "fcntl": ["EPERM"],
    "flock": ["EINTR", "ENOLCK", "EWOULDBLOCK", "ENOMEM"],
    "fstat": ["ENOMEM", "EOVERFLOW"],
    "fstatfs": ["ENOMEM", "EINTR", "ENOSYS"],
    "ftruncate": ["EINTR", "EFBIG", "ENOSPC", "ENOMEM"],
    "getsockopt": ["ENOBUFS", "ENOMEM"],
    "inotify_add_watch": ["ENOSPC", "ENOMEM", "EACCES", "ENOENT"],
    "inotify_init1": NO_DESCRIPTOR,
    "inotify_rm_watch": ["EINVAL"],
    "listen": ["EADDRINUSE"],
    "memfd_create": NO_DESCRIPTOR,
    "mkdir": FILE_SYSTEM,
    "mmap": ["ENOMEM", "EAGAIN", "ENFILE"],
    "open": NO_DESCRIPTOR + ["EACCES", "ENOENT", "ENOTDIR", "ELOOP", "EINTR"],
    "openat": NO_DESCRIPTOR + FILE_SYSTEM + ["EINTR"],
    "pread": ["EINTR", "ENOMEM"],
    "pwrite": ["EINTR", "ENOSPC", "ENOMEM"],
    "poll": ["EINTR", "ENOMEM"],
    "ppoll": ["EINTR", "ENOMEM"],
    "pthread_create": ["EAGAIN", "ENOMEM"],
    "read": ["EINTR", "EAGAIN"],
    "recv": ["EINTR", "EAGAIN", "ENOMEM", "ECONNRESET"],
    "recvmmsg": ["EINTR", "EAGAIN", "ENOMEM", "ECONNRESET"],
    "recvmmsg+descriptor": ["truncated"],
    "recvmsg": ["EINTR", "EAGAIN", "ENOMEM", "ECONNRESET"],
    "recvmsg+descriptor": ["truncated"],
    "renameat": FILE_SYSTEM,
    "send": ["EINTR", "EAGAIN", "ENOBUFS", "ENOMEM", "EPIPE", "ECONNRESET"],
    "sendmmsg": ["EINTR", "EAGAIN", "ENOBUFS", "ENOMEM", "EPIPE", "ECONNRESET", "ETOOMANYREFS"],
    "sendmsg": ["EINTR", "EAGAIN", "ENOBUFS", "ENOMEM", "EPIPE", "ECONNRESET", "ETOOMANYREFS"],
    "setsockopt": ["ENOMEM"],
    "shutdown": ["ENOTCONN"],
    "socket": NO_DESCRIPTOR + ["ENOBUFS"],
    "socketpair": NO_DESCRIPTOR + ["ENOBUFS"],
    "stat": ["EACCES", "ENOENT"],
    "timerfd_create": NO_DESCRIPTOR,
    "unlinkat": ["ENOENT", "EROFS", "EBUSY"],
    "write": ["EINTR", "ENOSPC", "ENOMEM"],
}

# Where a place can fail in other ways than its function at other places.
ERRORS_AT = {
    "SendQueue::push/fcntl": ["EMFILE"],
    "isSealed/fcntl": ["EINVAL"],
    "makeSealedCopy/fcntl": ["EPERM", "EBUSY"],
    "SharedMemoryRegion::mapReceived/fcntl": ["EMFILE"],
}

# Where an error of the lists above cannot happen.
EXCEPT = {
    "Service::wake/write": "a counter that is full is the only reason, and then a wake-up is pending",
    "Presence::addWatch/inotify_rm_watch": "only when memory ran out in between; nothing hangs on its result",
    "isMember/getsockopt": "only for the processes of other users",
    "Restart::allowed/getsockopt": "fails for a bad descriptor only",
    "isMember/getsockopt#2": "only for the processes of other users",
    "Client::awaitGathered/poll": "waits for room to send; asked again when it fails, until the time is up",
    "Client::receive/poll": "waits for room to send; asked again when it fails",
    "Client::urge/poll": "only from inside a listener; the service is urged when it fails, as when nothing came",
    "Session::awaitRoom/ppoll": "waits a moment for room to send; what finds none is queued, failed or not",
    "Lane::take/epoll_ctl": "taking out what is in never fails",
    "Lane::rest/epoll_ctl": "taking out what is in never fails",
    "Lane::retire/epoll_ctl": "taking out what is in never fails",
    "Lane::watch/epoll_ctl": "changing what is in never fails",
    "ownDirectory/stat": "only without NEX_NIPC_DIR",
}

# What is no call of the system, or one that cannot fail with the arguments it gets.
HARMLESS = """_Unwind_Resume __cmsg_nxthdr __errno_location __gxx_personality_v0 __libc_single_threaded
    _GLOBAL_OFFSET_TABLE_ __stack_chk_fail abort atexit clock_gettime close geteuid getpid kill memcmp memcpy memmove memset
    getrlimit getrlimit64 munmap secure_getenv snprintf sscanf __isoc99_sscanf __isoc23_sscanf strcmp strlen strrchr timerfd_settime strtoull time sigaddset sigdelset sigemptyset sigfillset
    pthread_attr_destroy pthread_attr_init pthread_attr_setdetachstate pthread_attr_setstacksize pthread_self
    pthread_cond_clockwait pthread_cond_timedwait pthread_mutex_lock pthread_mutex_unlock pthread_setname_np
    pthread_sigmask getgrnam_r sched_getaffinity sched_yield sysconf
    __sched_cpucount ashmem_create_region""".split()

# Faults that have to come before: nobody passes these places otherwise.
AFTER = {
    "PacketSocket::receiveInto/recvmsg#2": ("PacketSocket::receiveInto/recvmsg", "EINTR"),
    "Endpoint::bindAndListen/unlinkat#2": ("Endpoint::bindAndListen/listen", "EADDRINUSE"),
}

# What README.md of the platform says a connection may end with, whatever the reason was.
DOCUMENTED = """EPERM EACCES EADDRINUSE ECONNREFUSED ETIMEDOUT ECONNRESET EPROTO EUSERS ECANCELED ENOTCONN ENOBUFS ENOMEM
    EMFILE ENFILE EAGAIN ETOOMANYREFS EIO""".split()
# Steps that tell any error of the file system, also of the one that shared memory is in.
FILE_STEPS = ("start", "connect", "large sync", "event", "share to service", "share to client", "queued share")

REGIONS_KEPT = 3

Result = collections.namedtuple("Result", "first again caused held sites allocations")


def output(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def call_sites(program, functions):
    """Return address -> (name, function) of each call in the sources."""
    calls = []
    function = None
    for line in output("objdump", "-d", "--no-show-raw-insn", program).splitlines():
        at = re.match(r" +([0-9a-f]+):", line)
        if function and at:
            calls.append((int(at[1], 16), function))
        called = re.search(r"\t(?:callq?|bl) .*<(\w+)(?:@plt)?>$", line)
        function = called[1] if called and called[1] in functions else None
    places = output("addr2line", "-e", program, "-f", "-C",
                    input="".join("%x\n" % (address - 1) for address, _ in calls)).splitlines()
    sites = {}
    seen = collections.Counter()
    for (address, function), where, line in zip(calls, places[0::2], places[1::2]):
        if not re.search(r"/platform/linux/|/src/transfer/", line):
            continue
        short = re.sub(r"\(anonymous namespace\)::|nexnipc::|nipcconnector::|\(.*$", "", where).replace("[abi:cxx11]", "")
        name = "%s/%s" % (short, function)
        seen[name] += 1
        sites[address] = (name if seen[name] == 1 else "%s#%d" % (name, seen[name]), function)
    return sites


def unknown_functions(program, functions):
    directory = re.sub(r"/[^/]*$", "/CMakeFiles/nipc_faults.dir", program)
    objects = output("find", directory, "-path", "*/platform/linux/*.o", "-o", "-path", "*/src/transfer/*.o").splitlines()
    symbols = {line.split()[-1] for line in output("nm", "-u", *objects).splitlines() if " U " in line}
    known = set(functions) | set(HARMLESS)
    return sorted(s for s in symbols if not re.match(r"_Z|__cxa_|__[atu]san_|__ubsan_|nexNipc_", s) and s not in known)


def run(program, life, faults, held=()):
    words = [str(word) for fault in faults for word in fault]
    done = subprocess.run([program, life, *map(str, held or [0] * 4), *words], capture_output=True, text=True, timeout=40)
    if done.returncode != 0:
        raise RuntimeError("exit status %d %s" % (done.returncode, done.stderr[-300:]))
    told = dict(line.split(" ", 1) for line in done.stdout.splitlines() if not line.startswith("site "))
    sites = {}
    for _, address, function, passes in (l.split() for l in done.stdout.splitlines() if l.startswith("site ")):
        sites[int(address, 16), function] = int(passes)
    return Result(told["first"], told["again"], int(told["caused"]), [int(n) for n in told["held"].split()], sites,
                  [int(n) for n in told["allocations"].split()])


def judge(result, error, life, reference):
    """What happened, and whether it may."""
    usual = list(reference.held)
    if life == "connector":  # which stays connected, and keeps a few regions for later,
        usual[0] += REGIONS_KEPT
        usual[3] += result.first.startswith("large answer")  # and the callback of a request without an answer
    over = ["%s %d instead of %d" % (what, now, before) for what, now, before in
            zip(("descriptors", "threads", "mappings", "allocations"), result.held, usual) if now > before]
    if over:
        return False, "LEAK: " + ", ".join(over)
    if result.again:
        return False, "NOT RECOVERED: " + result.again
    if not result.first:
        return True, "absorbed"
    if "without a line" in result.first:
        return False, "NOT LOGGED: " + result.first
    step, status = result.first.rsplit(" ", 1)
    if status == "2":
        return True, "%s: connection over, and told" % step
    if status == "1":
        if life == "platform":
            return step in ("sync", "large sync"), "%s: the service says that it failed" % step
        return step not in ("initialize", "large event"), "%s: failed and logged" % step
    name = errno.errorcode.get(-int(status), status)
    expected = name in DOCUMENTED or (step in FILE_STEPS and name == error)
    return expected, "%s: -%s%s" % (step, name, "" if expected else " IS NOT DOCUMENTED")


def errors_of(name, function):
    return [] if name in EXCEPT else ERRORS_AT.get(name, ERRORS[function])


def plan_cases(lives, sites, short):
    """(life, label, error, faults) of every run."""
    by_name = {name: (address, function) for address, (name, function) in sites.items()}
    cases = []
    for address, (name, function) in sorted(sites.items(), key=lambda site: site[1]):
        for kind in (function, function + "+descriptor"):
            before = []
            if name in AFTER and kind == function:
                first, error = AFTER[name]
                if first not in by_name:
                    continue
                before = [("%x" % by_name[first][0], by_name[first][1], 1, getattr(errno, error))]
            life, passes = next(((life, reference.sites[address, kind]) for life, reference in lives.items()
                                 if (address, kind) in reference.sites), (None, 0))
            if before:
                life, passes = "platform", 1
            for error in errors_of(name, kind) if passes else []:
                number = -1 if error == "truncated" else getattr(errno, error)
                for nth in sorted({1} if short else {1, random.randint(1, passes), passes}):
                    cases.append((life, "%s%s" % (name, "" if kind == function else "+descriptor"), error,
                                  before + [("%x" % address, kind, nth, number)], nth))
    for life, reference in lives.items():
        throwing, other = reference.allocations
        for n in range(1, throwing + 1, 3 if short else 1) if life == "platform" else []:
            cases.append((life, "operator new", "ENOMEM", [("new", n)], n))
        for n in range(1, other + 1):
            cases.append((life, "operator new(nothrow)", "ENOMEM", [("nothrow", n)], n))
    return cases


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("--jobs", type=int, default=8)
    parser.add_argument("--only", default="")
    arguments = parser.parse_args()
    random.seed(arguments.seed)
    print("seed", arguments.seed)

    functions = {name for name in ERRORS if "+" not in name}
    failures = ["%s: neither in the table of errors nor known to be harmless" % name
                for name in unknown_functions(arguments.program, functions)]
    sites = call_sites(arguments.program, functions)
    lives = {life: run(arguments.program, life, []) for life in ("platform", "connector")}
    for life, reference in lives.items():
        if reference.first or reference.again:
            failures.append("%s without a fault: %s %s" % (life, reference.first, reference.again))
    cases = [case for case in plan_cases(lives, sites, arguments.short) if arguments.only in case[1]]

    def attempt(case):
        life, _, error, faults, nth = case
        try:
            result = run(arguments.program, life, faults, lives[life].held)
        except subprocess.TimeoutExpired:
            return False, "HANGS"
        except RuntimeError as failure:
            return False, "DIES: %s" % failure
        if result.caused < len(faults):
            return nth > 1, "not reached" if nth > 1 else "NOT REACHED"
        return judge(result, error, life, lives[life])

    table = collections.OrderedDict()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for case, (good, what) in zip(cases, pool.map(attempt, cases)):
            table.setdefault((case[1], case[2]), collections.Counter())[what] += 1
            if not good:
                failures.append("%s %s at pass %d: %s (%s)" % (case[1], case[2], case[4], what, " ".join(
                    [case[0]] + [str(word) for fault in case[3] for word in fault])))
    for (name, error), results in table.items():
        print("%-46s %-13s %s" % (name, error, "; ".join(
            what if count == 1 else "%s (%d times)" % (what, count) for what, count in results.items())))
    tried = {name for name, _ in table}
    for name, function in sites.values():
        if name in EXCEPT:
            print("%-46s left out: %s" % (name, EXCEPT[name]))
        elif name not in tried and not arguments.only:
            failures.append("%s: a place that no run passes" % name)
    print("%d places, %d pairs of place and error, %d runs, %d failed" %
          (len(sites), len(table), len(cases), len(failures)))
    for failure in failures:
        print("FAILED:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
