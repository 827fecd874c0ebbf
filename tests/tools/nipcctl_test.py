"""nipcctl as a program: what it prints and how it ends."""
import json
import os
import pty
import re
import resource
import signal
import subprocess
import tempfile
import threading
import time
import unittest

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
NIPCCTL = os.environ.get("EMULATOR", "").split(";") if os.environ.get("EMULATOR") else []
NIPCCTL = NIPCCTL + [os.environ["NIPCCTL"]]
PATIENCE = 20
ALL_BYTES = bytes(range(256))
COMMANDS = ["list", "call", "listen", "serve", "id", "lint", "bench", "doctor"]


def run(*arguments, stdin=b"", **options):
    return subprocess.run(NIPCCTL + list(arguments), input=stdin, capture_output=True, timeout=PATIENCE, **options)


def clashing_names():
    """Two names that have one identifier."""
    seen = {}
    for line in run("id", *(f"name{i}" for i in range(2000))).stdout.decode().splitlines():
        number, name = line.split()
        if number in seen:
            return seen[number], name
        seen[number] = name
    raise AssertionError("no two of 2000 names share an identifier")


class Case(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="nipcctl-test.")
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        self.services = os.path.join(self.directory, "services")
        os.mkdir(self.services, 0o755)
        os.chmod(self.directory, 0o755)
        os.environ["NEX_NIPC_DIR"] = self.services

    def path(self, name, content=None):
        path = os.path.join(self.directory, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def start(self, *arguments, **options):
        process = subprocess.Popen(NIPCCTL + list(arguments), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, **options)
        process.said, process.changed = [], threading.Condition()
        process.reader = threading.Thread(target=self.read, args=[process])
        process.reader.start()
        self.addCleanup(self.end, process)
        return process

    def read(self, process):
        for line in process.stderr:
            with process.changed:
                process.said.append(line)
                process.changed.notify_all()

    def end(self, process):
        if process.poll() is None:
            process.send_signal(signal.SIGCONT)
            process.terminate()
        process.wait(PATIENCE)
        process.reader.join()
        for stream in (process.stdin, process.stdout, process.stderr):
            stream.close()

    def serve(self, *arguments, uuid=7):
        """A service that is there."""
        process = self.start("serve", "-u", str(uuid), "-v", *arguments)
        self.await_line(process, b"Initializing IPC server..done")
        return process

    def await_line(self, process, text, times=1):
        with process.changed:
            said = process.changed.wait_for(lambda: sum(text in line for line in process.said) >= times, PATIENCE)
        self.assertTrue(said, f"{process.args} does not say {text}: {process.said}")

    def check(self, result, code, stdout=None, stderr=None):
        self.assertEqual((code, True), (result.returncode, result.stderr.count(b"\n") <= 1), result)
        if stdout is not None:
            self.assertEqual(stdout, result.stdout)
        if stderr is not None:
            self.assertRegex(result.stderr.decode(), stderr)


class Calls(Case):
    def test_answers_and_refusals(self):
        answer = self.path("answer", ALL_BYTES)
        payload = self.path("payload", ALL_BYTES * 12000)
        self.serve("--reply", "hi=a=b", "--reply-file", "file=" + answer, "--exec", "cat=cat", "--reply", "empty=",
                   "--exec", "bad=exit 3", "--exec", "unread=head -c 1000000 /dev/zero",
                   "--exec", "signal=kill -TERM $$; echo survived", "--exec", "pipe=yes | head -n 1")
        as_json = rb'{"name":"cat","status":"success","milliseconds":[0-9.e-]+,"length":2,%s}\n$'
        for arguments, stdin, code, stdout, stderr in [
                (["hi"], b"", 0, b"a=b", "^$"),
                (["hi", "--async"], b"", 0, b"a=b", "^$"),
                (["file", "--repeat", "2"], b"", 0, ALL_BYTES * 2, "^$"),
                (["file", "--hex"], b"", 0, ALL_BYTES.hex().encode() + b"\n", "^$"),
                (["cat", "-"], ALL_BYTES, 0, ALL_BYTES, "^$"),
                (["cat", "--async", "--file", payload], b"", 0, ALL_BYTES * 12000, "^$"),
                (["cat", "[a,b]"], b"", 0, b"[a,b]", "^$"),
                (["cat", "--", "--json"], b"", 0, b"--json", "^$"),
                (["cat", "--json", '"\n'], b"", 0, re.compile(as_json % rb'"data":"\\"\\n"'), "^$"),
                (["cat", "--json", "-"], b"\xff\0", 0, re.compile(as_json % b'"hex":"ff00"'), "^$"),
                (["unread", "--async", "--file", payload], b"", 0, b"\0" * 1000000, "^$"),
                (["pipe"], b"", 0, b"y\n", "^$"),
                (["signal"], b"", 1, b"", "refused"),
                (["bad"], b"", 1, b"", '"bad" was refused'),
                (["bad", "--async"], b"", 1, b"", '"bad" was answered with a failure'),
                (["empty", "--async"], b"", 0, b"", "^$"),
                (["no\033such"], b"", 1, b"", r'"no\\x1bsuch" was refused'),
                (["hi", "--timeout", "0.2", "--async", "--file", self.path("missing")], b"", 5, b"", "missing"),
        ]:
            with self.subTest(arguments=arguments):
                result = run("call", "-u", "7", *arguments, stdin=stdin)
                if isinstance(stdout, re.Pattern):
                    self.assertRegex(result.stdout, stdout)
                    stdout = None
                self.check(result, code, stdout, stderr)

    def test_ends_when_no_answer_comes_and_serves_others_meanwhile(self):
        os.mkfifo(self.path("gate"))
        self.serve("--reply", "hi=there", "--exec", "slow=cat " + self.path("gate"))
        waiting = self.start("call", "-u", "7", "slow", "--async", "-v")
        self.await_line(waiting, b"Sending async request via NIPC")
        self.check(run("call", "-u", "7", "slow", "--async", "--timeout", "0.1"), 4, b"", "in time")
        self.check(run("call", "-u", "7", "hi"), 0, b"there")
        limit = time.monotonic() + PATIENCE
        while waiting.poll() is None and time.monotonic() < limit:
            try:  # lets all pass that have come to it, and does not wait for them
                os.close(os.open(self.path("gate"), os.O_WRONLY | os.O_NONBLOCK))
            except OSError:
                time.sleep(0.01)
        self.assertEqual(0, waiting.poll())
        self.check(run("call", "-u", "7", "slow", "--timeout", "0.1"), 4, b"", "in time")
        large = self.path("large", bytes(1 << 20))
        self.check(run("call", "-u", "7", "hi", "--async", "--file", large), 4, b"", "does not respond")

    def test_tells_that_the_service_is_missing_or_goes_away(self):
        self.check(run("call", "-u", "9", "hi"), 3, b"", "service 9 cannot be reached: nobody offers it")
        self.check(run("call", "-u", "9", "hi", "--wait", "--timeout", "0.1"), 4, b"", "in time")
        patient = self.start("call", "-u", "7", "hi", "--wait", "-v")
        self.await_line(patient, b"Starting non-blocking retry")
        service = self.serve("--reply", "hi=there", "--exec", "hang=sleep 5")
        self.assertEqual((b"there", 0), (patient.stdout.read(), patient.wait(PATIENCE)))
        self.check(run("serve", "-u", "7"), 3, b"", "another process offers it")
        waiting = [self.start("call", "-u", "7", "hang", "-v"), self.start("call", "-u", "7", "hang", "--async", "-v")]
        for process in waiting:
            self.await_line(process, b"succeeded after")
        service.kill()
        for process in waiting:
            self.assertEqual(3, process.wait(PATIENCE))

    def test_serves_in_the_background_of_a_terminal(self):
        shell, terminal = pty.fork()
        if shell == 0:
            os.execlp("bash", "bash", "-mc", '"$0" "$@" & wait', *NIPCCTL, "serve", "-u", "7", "--reply", "hi=there")
        self.addCleanup(os.waitpid, shell, 0)
        self.addCleanup(os.close, terminal)  # Ends them if they are still there.
        self.check(run("call", "-u", "7", "hi", "--wait"), 0, b"there")
        os.kill(json.loads(run("list", "--json").stdout)[0]["pid"], signal.SIGTERM)


class Events(Case):
    def publish(self, service, lines):
        service.stdin.write(lines)
        service.stdin.flush()

    def await_subscriber(self, service):
        """Calls of the service come one at a time: what is answered after the arrival finds it done."""
        self.await_line(service, b"is connected")
        self.check(run("call", "-u", "7", "ready"), 0, b"yes")

    def test_listens_through_a_restart(self):
        listener = self.start("listen", "-u", "7", "a", "[b,c]", "--count", "4", "-v")
        for round, (events, lines) in enumerate([(b"a 1 \\ \xff\033[m\nz 0\n", [rb" a 1 \\\\ \\xff\\x1b\[m"]),
                              (b"[b,c] 2\n\na\na  3\n", [rb" \[b,c\] 2", b" a", b" a  3"])]):
            service = self.serve("--reply", "ready=yes")
            self.await_line(listener, b"succeeded after", times=round + 1)
            self.await_subscriber(service)
            self.publish(service, events)
            for line in lines:
                self.assertRegex(listener.stdout.readline(), rb"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4}" + line + b"\n$")
            service.terminate()
            self.assertEqual(0, service.wait(PATIENCE))
        self.assertEqual(0, listener.wait(PATIENCE))

    def test_forms_and_ends(self):
        service = self.serve("--reply", "ready=yes")
        listener = self.start("listen", "-u", "7", "a", "--json", "-v")
        self.await_subscriber(service)
        self.publish(service, b"a \xc3\xa4\n")
        line = json.loads(listener.stdout.readline())
        self.assertEqual(("a", 2, "\u00e4"), (line["event"], line["length"], line["data"]))
        listener.send_signal(signal.SIGINT)
        self.assertEqual(0, listener.wait(PATIENCE))
        self.check(run("listen", "-u", "7", "a", "--for", "0.1"), 0, b"")
        self.check(run("listen", "-u", "7", "a", "--for", "0.1", "--count", "1"), 4, b"", "0 of 1 events")
        self.check(run("listen", "-u", "7", *clashing_names()), 2, b"", "one identifier")


class Names(Case):
    def test_identifiers_and_lists(self):
        one, other = clashing_names()
        self.assertRegex(run("id", "[a,b]", "").stdout, rb"^\d+ \[a,b\]\n\d+ \n$")
        self.assertEqual(one, json.loads(run("id", "--json", one).stdout)["name"])
        for content, code, stderr in [
                ("", 0, "^$"), ("a\nb", 0, "^$"), ("a\r\nb\na\n", 0, "^$"),
                ("a\n\nb\n", 1, ":2: the name is empty"),
                (f"{one}\na\n{other}\n", 1, f':3: "{other}" has the identifier \\d+ of "{one}" .*:1\\), while "\\w+" is free'),
        ]:
            with self.subTest(content=content):
                self.check(run("lint", self.path("names", content.encode())), code, b"", stderr)
        self.check(run("lint", self.path("one", one.encode()), self.path("other", other.encode())), 1, b"", "is free")
        self.check(run("lint", self.path("missing")), 5, b"", "missing")

    @unittest.skipIf(os.environ.get("EMULATOR"), "builds with the host's tools")
    def test_builds_check_their_lists(self):
        self.path("CMakeLists.txt", b"cmake_minimum_required(VERSION 3.22)\nproject(names NONE)\n"
                  b"include(\"%s/cmake/NipcCheckNames.cmake\")\nnipc_check_names(good more)\n" % ROOT.encode())
        self.path("good", b"a\nb\n")
        cmake = [os.environ["CMAKE"], "-S", self.directory, "-B", self.path("build"), "-DNIPCCTL_PROGRAM=" + NIPCCTL[-1]]
        for more, fails in [("c\n", False), ("c\n\n", True)]:
            self.path("more", more.encode())
            subprocess.run(cmake, check=True, capture_output=True)
            built = subprocess.run([cmake[0], "--build", self.path("build")], capture_output=True, text=True)
            self.assertEqual(fails, built.returncode != 0, built)
            self.assertEqual(fails, "the name is empty" in built.stdout + built.stderr, built)


class Directory(Case):
    def test_lists_without_being_a_client(self):
        service = self.serve()
        self.serve(uuid=8).kill()
        listener = self.start("listen", "-u", "7", "a", "-v")
        self.await_line(listener, b"succeeded after")
        for _ in range(2):
            services = {s["uuid"]: s for s in json.loads(run("list", "--json").stdout) if s["directory"] == self.services}
            self.assertEqual((service.pid, 1, "ok"), tuple(services[7][key] for key in ("pid", "clients", "state")))
            self.assertLess(abs(time.time() - time.mktime(time.strptime(services[7]["since"][:19], "%Y-%m-%dT%H:%M:%S"))), 3600)
            self.assertEqual("stale", services[8]["state"])
        self.assertRegex(run("list").stdout.decode(), rf"(?s)^UUID +PID.*\n *7 +{service.pid} .* ok\n *8 +- .* stale")

    def test_says_why_a_client_would_not_reach_a_service(self):
        service = self.serve()
        self.serve(uuid=8).kill()
        limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (20, 20))
        nobody = lambda: os.setuid(65534)
        elsewhere = {**os.environ, "NEX_NIPC_DIR": self.path("nowhere")}
        no_group = {**os.environ, "NEX_NIPC_GROUP": "no-such-group"}
        cases = [
            ("all is well", "7", None, {}, 0, f"service 7, process {service.pid} .* responds"),
            ("never offered", "9", None, {}, 1, "service 9: nobody offers it"),
            ("killed", "8", None, {}, 1, "service 8: .* the process that offered it has ended"),
            ("another directory", "7", None, {"env": elsewhere}, 1, "(?s)nowhere.* is missing.*nobody offers it"),
            ("a group that is none", "7", None, {"env": no_group}, 1, "no group"),
            ("a directory for all", "7", lambda: os.chmod(self.services, 0o777), {}, 1, "may be written by everybody"),
            ("descriptors", "7", lambda: os.chmod(self.services, 0o755), {"preexec_fn": limit}, 1, "of 20 descriptors"),
            ("frozen", "7", lambda: service.send_signal(signal.SIGSTOP), {}, 1, f"is stopped\n +do: kill -CONT {service.pid}"),
        ]
        if os.geteuid() == 0:
            if subprocess.run(NIPCCTL + ["--version"], capture_output=True, preexec_fn=nobody).returncode == 0:
                cases.insert(1, ("another user", "7", None, {"preexec_fn": nobody}, 1, "(?s)another user.*NEX_NIPC_GROUP"))
            cases.append(("owner", "7", lambda: os.chown(self.services, 4321, 0), {}, 1, "belongs to 4321"))
        for name, uuid, prepare, options, code, stdout in cases:
            with self.subTest(name):
                if prepare:
                    prepare()
                result = run("doctor", "-u", uuid, **options)
                self.assertEqual((code, b""), (result.returncode, result.stderr), result)
                self.assertRegex(result.stdout.decode(), stdout)


class Program(Case):
    def test_usage(self):
        for arguments in [[], ["nothing"], ["call"], ["call", "x"], ["call", "x", "-u", "65536"], ["call", "x", "-u", "-1"],
                          ["call", "x", "-u", "7", "--hex", "--json"], ["call", "x", "d", "-u", "7", "--file", "f"],
                          ["listen", "-u", "7"], ["serve", "-u", "7", "--reply", "x"], ["id", "--bogus"],
                          ["serve", "-u", "7", "--reply", "x=1", "--exec", "x=cat"]]:
            with self.subTest(arguments=arguments):
                self.check(run(*arguments), 2, b"", "^nipcctl: ")

    def test_output_that_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            failed = subprocess.run(NIPCCTL + ["id", "a"], stdout=full, stderr=subprocess.PIPE, timeout=PATIENCE)
        self.assertEqual((5, True), (failed.returncode, b"cannot be written" in failed.stderr))
        reader, writer = os.pipe()
        os.close(reader)
        gone = subprocess.run(NIPCCTL + ["id", "a"], stdout=writer, stderr=subprocess.PIPE, timeout=PATIENCE)
        os.close(writer)
        self.assertEqual((5, b""), (gone.returncode, gone.stderr))

    def test_colours_are_for_terminals_whose_users_want_them(self):
        self.serve()
        for environment, coloured in [({}, True), ({"NO_COLOR": "1"}, False)]:
            master, terminal = pty.openpty()
            subprocess.run(NIPCCTL + ["list"], stdout=terminal, env={**os.environ, **environment}, timeout=PATIENCE)
            self.assertEqual(coloured, b"\033[" in os.read(master, 65536))
            os.close(terminal)
            os.close(master)
        self.assertNotIn(b"\033", run("list").stdout)

    @unittest.skipIf(os.environ.get("EMULATOR"), "starts itself")
    def test_bench_measures_everything(self):
        before = set(os.listdir(tempfile.gettempdir()))
        rows = [json.loads(line) for line in run("bench", "--count", "20", "--json").stdout.splitlines()]
        self.assertEqual(11, len(rows))
        for row in rows:
            self.assertTrue(0 < row["p50_us"] <= row["p90_us"] <= row["p99_us"] <= row["max_us"], row)
        left = [n for n in set(os.listdir(tempfile.gettempdir())) - before if n.startswith("nipcctl-bench.")]
        self.assertEqual([], left)
        self.assertRegex(run("bench", "--count", "1").stdout.decode(), r"^ +bytes +count +p50 us")

    def test_page_and_completions_know_every_option(self):
        texts = {}
        for name in ["docs/nipcctl.1", "tools/completion/nipcctl.bash", "tools/completion/_nipcctl"]:
            with open(os.path.join(ROOT, name), encoding="utf-8") as file:
                texts[name] = file.read().replace("\\-", "-")
        for command in COMMANDS:
            self.assertIn(command, run("--help").stdout.decode())
            options = re.findall(r"(?m)^ .*?(--[a-z-]+)", run(command, "--help").stdout.decode())
            for name, text in texts.items():
                for option in options:
                    self.assertTrue(option in text, f"{option} is missing in {name}")
        self.assertNotIn(b"bench-service", run("--help").stdout)


if __name__ == "__main__":
    unittest.main()
