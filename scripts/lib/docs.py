#!/usr/bin/env python3
"""Checks the documents against the tree. Called by scripts/docs-check from the top of the tree.

    docs.py links           relative links and their anchors lead somewhere
    docs.py tables          docs/logs-and-metrics.md names each log line and metric of the sources
    docs.py snippets        code in the documents is that of the sources it names (--update copies it there)
    docs.py run PAGE        does what the page says, in the current directory; --full: with what takes long
    docs.py commands PAGE   prints all commands of the page, where none is for the background, as one script

A block of a page is for the machine when the line before it is one of these:

    <!-- from FILE -->             it is that file; FILE#NAME: what stands between two lines "// [NAME]"
    <!-- from FILE as NAME -->     and who follows the page keeps it as NAME
    <!-- run -->                   a command to run, in a shell that starts where the one before ended
    <!-- run in full -->           the same, where there is time for it
    <!-- run in the background --> the same, until the end of the page
    <!-- prints -->                lines that the commands so far have printed, in this order; "..." is anything

And anywhere <!-- stop NUMBER --> ends that command in the background, as Ctrl-C would: 1 is the page's first.
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import textwrap
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
FENCE = re.compile(r"^<!-- (from|run|prints)\b *(.*?) *-->\n```(\w*)\n(.*?)^```$|^<!-- (stop) (\d+) -->$", re.M | re.S)


def pages():
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", "*.md"],
                            cwd=ROOT, check=True, capture_output=True, text=True).stdout
    return [ROOT / name for name in listed.split("\0") if name and (ROOT / name).exists()]


def anchors(page):
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
    for heading in re.findall(r"^#+ (.*)$", text, re.M):
        plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading)
        yield re.sub(r"[^\w\- ]", "", plain.lower()).replace(" ", "-")


def check_links():
    for page in pages():
        text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
        for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`\n]*`", "", text)):
            if re.match(r"[a-z]+:", target):
                continue
            path, _, anchor = target.partition("#")
            other = (page.parent / path).resolve() if path else page
            if not other.exists():
                yield f"{page.relative_to(ROOT)}: {target} leads nowhere"
            elif anchor and other.suffix == ".md" and anchor not in anchors(other):
                yield f"{page.relative_to(ROOT)}: {target} has no such heading"


def literal(text):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', text))


def check_tables():
    page = (ROOT / "docs/logs-and-metrics.md").read_text()
    sources = "".join(path.read_text() for path in sorted((ROOT / "src").rglob("*")) if path.suffix in (".cpp", ".h"))
    strings = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
    lines = re.findall(rf"NIPC_LOG\([^,]+,\s*(\w+),\s*{strings}", sources)
    if len(lines) != len(re.findall(r"\bNIPC_LOG\((?!logger, level)", sources)):
        yield "a log line of the sources was not understood"
    logged = {(level, literal(text)) for level, text in lines}
    told = set(re.findall(r"^\| (debug|info|warn|error) \| `([^`]+)` \|", page, re.M))
    yield from (f'{level} "{text}" is logged, and not in the table' for level, text in sorted(logged - told))
    yield from (f'{level} "{text}" is in the table, and not logged' for level, text in sorted(told - logged))

    words = set(re.findall(r"`(\w+)`", page[page.index("## Metrics"):]))
    recorded = set(re.findall(r'(?:recordMetric|\w+Dimension|fail(?:Fd|LargePayload)|count(?:Sync|Async)RequestFailure)'
                              r'\((?:requestName, )?"(\w+)"', sources))
    recorded |= {word for choice in re.findall(r'Dimension\("\w+", ([^{}]*?)\)', sources)
                 for word in re.findall(r'"(\w+)"', choice)}
    yield from (f"{word} is recorded, and not in the tables of metrics" for word in sorted(recorded - words))
    rows = set(re.findall(r"^\| `(\w+)` \|", page[page.index("## Metrics"):], re.M))
    yield from (f"{word} is in the tables of metrics, and not recorded" for word in sorted(rows - recorded))


def region(source):
    path, _, name = source.partition("#")
    text = (ROOT / path).read_text()
    if not name:
        return text
    lines = text.splitlines(keepends=True)
    marks = [i for i, line in enumerate(lines) if line.strip() == f"// [{name}]"]
    if len(marks) != 2:
        raise SystemExit(f"error: {path} has {len(marks)} lines \"// [{name}]\", not 2")
    return textwrap.dedent("".join(lines[marks[0] + 1:marks[1]]))


def check_snippets(update):
    for page in pages():
        text = page.read_text()

        def replaced(match):
            if match[1] != "from":
                return match[0]
            head = match[0][:match.start(4) - match.start(0)]
            return head + region(match[2].split(" as ")[0]) + "```"

        right = FENCE.sub(replaced, text)
        if right == text:
            continue
        if update:
            page.write_text(right)
        else:
            yield f"{page.relative_to(ROOT)} differs from the sources it shows: scripts/docs-check --update"


class Shell:
    """Runs the blocks of a page one after the other, and keeps what they print."""

    def __init__(self):
        self.cwd = os.getcwd()
        self.output = tempfile.NamedTemporaryFile("r", prefix="output.")
        self.background = []

    def start(self, command):
        with open(self.output.name, "a") as log:
            return subprocess.Popen(["bash", "-euo", "pipefail", "-c", command], cwd=self.cwd, stdout=log, stderr=log,
                                    stdin=subprocess.DEVNULL, start_new_session=True)

    def run(self, command):
        print(textwrap.indent(command.rstrip(), "$ "), flush=True)
        with tempfile.NamedTemporaryFile("r") as place:
            process = self.start(f"{command}\npwd >'{place.name}'")
            try:
                code = process.wait(timeout=1200)
            except subprocess.TimeoutExpired:
                self.end(process)
                code = "none: it does not end"
            if code != 0:
                raise SystemExit(f"{self.printed()[-4000:]}\nerror: exit status {code} of\n{command}")
            self.cwd = place.read().strip()

    def expect(self, lines):
        """The lines, in this order, anything between them; "..." stands for anything within a line."""
        pattern = ".*".join("^" + re.escape(line).replace(r"\.\.\.", "[^\n]*") + "$" for line in lines)
        deadline = time.monotonic() + 20
        while not re.search(pattern, self.printed(), re.M | re.S):
            if time.monotonic() > deadline:
                raise SystemExit(f"{self.printed()[-4000:]}\nerror: not printed:\n" + "\n".join(lines))
            time.sleep(0.05)

    def printed(self):
        return pathlib.Path(self.output.name).read_text()

    def end(self, process):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            try:
                os.killpg(process.pid, number)
                process.wait(timeout=5)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass


def run_page(page, full):
    shell = Shell()
    try:
        for kind, argument, _, text, stop, number in FENCE.findall(pathlib.Path(page).read_text()):
            if kind == "from" and " as " in argument:
                target = pathlib.Path(shell.cwd, argument.split(" as ")[1])
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_text(text)
            elif kind == "run" and argument == "in the background":
                print(textwrap.indent(text.rstrip(), "$ ") + " &", flush=True)
                shell.background.append(shell.start(text))
            elif kind == "run" and (full or argument != "in full"):
                shell.run(text)
            elif kind == "prints":
                shell.expect(text.splitlines())
            elif stop:
                shell.end(shell.background[int(number) - 1])
    finally:
        for process in reversed(shell.background):
            shell.end(process)


def main(arguments):
    if arguments[0] == "commands":
        for block in FENCE.finditer(pathlib.Path(arguments[1]).read_text()):
            if block[1] == "run":
                print(block[4], end="")
        return 0
    if arguments[0] == "run":
        run_page(arguments[1], "--full" in arguments)
        return 0
    checks = {"links": check_links, "tables": check_tables,
              "snippets": lambda: check_snippets("--update" in arguments)}
    problems = list(checks[arguments[0]]())
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
