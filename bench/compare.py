"""Runs nipc_bench through its workloads, interleaved, and writes medians, ratios and a plot. See scripts/bench."""
import argparse
import json
import os
import re
import statistics
import subprocess

KIB, MIB = 1024, 1024 * 1024
SUBJECTS = {  # Column: settings of the platform and options of nipc_bench.
    "connector": "",
    "no spin": "NEX_NIPC_SPIN=0",
    "logged": "--variant logged",
    "raw": "--variant raw-packet",
    "raw memory": "--variant raw-memory",
    "recycled": "--variant raw-memory-recycled",
}
INLINE = ["raw", "connector", "logged"]
LARGE = ["raw memory", "recycled", "connector"]
SECTIONS = {  # Title, figure, its unit, columns, cells. Ratios are to the first column, or to the first cell.
    "W1": ("Synchronous round trip", "p50_us", "µs", ["raw", "no spin", "connector", "logged"],
           [f"--size {s} --pin {p}" for p in ("split", "same") for s in (64, 1024, 16000)]),
    "W2": ("Asynchronous requests, 64 under way", "per_s", "/s", INLINE, [f"--size {s}" for s in (64, 1024, 16000)]),
    "W3": ("Events delivered, to 1, 4 and 16 subscribers", "per_s", "/s", INLINE[:2],
           [f"--size {s} --subs {n}" for s in (64, 1024) for n in (1, 4, 16)]),
    "latency": ("Events at 500 a second, from publishing to handler", "p50_us", "µs", INLINE[:2],
                [f"--workload W3 --rate 500 --pin {p}" for p in ("split", "same")]),
    "W4": ("Large payloads with acknowledgement", "p50_us", "µs", LARGE,
           [f"--size {s} --clients {c}" for c in (1, 2) for s in (64 * KIB, MIB, 5 * MIB)]),
    "growth": ("Synchronous round trip as the system grows", "p50_us", "µs", ["connector"],
               [f"{o} --workload W1 --pin same"
                for o in ("--idle 1", "--idle 10", "--idle 100", "--idle 500", "--names 1000", "--services 8")]),
    "callers": ("Synchronous calls of several threads", "per_s", "/s", ["connector"],
                [f"--callers {n} --workload W1" for n in (1, 10, 100)]),
}
FOOTPRINT = ["rss_unconnected_kb", "rss_client_kb", "anon_client_kb", "rss_server_kb", "anon_server_kb",
             "threads_client", "threads_server", "wakeups_client", "wakeups_server"]


def run(program, arguments):
    settings = dict(word.split("=") for word in arguments.split() if "=" in word)
    done = subprocess.run([program, *(word for word in arguments.split() if "=" not in word)],
                          stdout=subprocess.PIPE, text=True, env={**os.environ, **settings})
    if done.returncode:
        print(f"failed ({done.returncode}): {os.path.basename(program)} {arguments}", flush=True)
    return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]


def measure(options, sections):
    rows = []
    for round_number in range(options.rounds):
        for name in sections:
            _, _, _, columns, cells = SECTIONS[name]
            for cell in cells:
                workload = "" if "--workload" in cell else f"--workload {name} "
                for column in columns:
                    for row in run(options.programs + "/nipc_bench",
                                   f"{workload}{cell} {SUBJECTS[column]} --secs {options.secs}"):
                        rows.append(dict(row, section=name, cell=cell, column=column))
        print(f"round {round_number + 1} of {options.rounds}", flush=True)
    return rows


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def medians(rows, section, cell, column):
    found = [r for r in rows if (r["section"], r["cell"], r["column"]) == (section, cell, column) and "n" in r]
    return {k: statistics.median(r[k] for r in found) for k in ("p50_us", "p99_us", "per_s", "cpu_us") if found and k in found[0]}


def tables(rows, sections):
    """The table, and the ratio of the connector to the baseline by cell."""
    out, ratios = [], []
    for name in sections:
        title, figure, unit, columns, cells = SECTIONS[name]
        out += [f"**{title}, {unit}**", "", "| | " + " | ".join(columns) + " | CPU µs |", "|---" * (len(columns) + 2) + "|"]
        first = medians(rows, name, cells[0], columns[0])
        for cell in cells:
            values = {c: medians(rows, name, cell, c) for c in columns}
            base = first if len(columns) == 1 else values[columns[0]]
            label = re.sub(r"--(workload W\d|)", "", cell).replace("  ", " ").strip()
            told = [described(values[c], base, figure, unit) for c in columns]
            ours = values["connector"]
            if figure in ours and figure in base:
                ratios.append((f"{name} {label}", cost(ours, base, figure, unit)))
            out.append(f"| {label} | {' | '.join(told)} | {number(ours['cpu_us']) if ours else '–'} |")
        out.append("")
    return out, ratios


def cost(values, base, figure, unit):
    return values[figure] / base[figure] if unit == "µs" else base[figure] / values[figure]


def described(values, base, figure, unit):
    """A figure, what it costs relative to the baseline, and the 99th percentile with the same."""
    if figure not in values:
        return "–"
    text = number(values[figure])
    if values is not base and figure in base:
        text += f" = {cost(values, base, figure, unit):.2f}"
    if "p99_us" in values:
        text += f" (p99 {number(values['p99_us'])}"
        text += f" = {values['p99_us'] / base['p99_us']:.2f})" if values is not base and base.get("p99_us") else ")"
    return text


def footprint(options):
    rows = run(options.programs + "/nipc_bench", "--workload W5")
    out = ["**Footprint when idle**", "", "| " + " | ".join(FOOTPRINT) + " |", "|---" * len(FOOTPRINT) + "|"]
    out += ["| " + " | ".join(number(row[k]) for k in FOOTPRINT) + " |" for row in rows]
    out += ["", "**Allocations for each message of 64 bytes, client and service together**", "",
            "| | connector | platform |", "|---|---|---|"]
    out += [f"| {r['kind']} | {r['connector']:g} | {r['platform']:g} |" for r in run(options.programs + "/nipc_allocations", "")]
    return out + [""]


def plot(folder, ratios):
    with open(folder + "/ratios.dat", "w") as data:
        data.writelines(f'"{label}" {ratio:.3f}\n' for label, ratio in ratios)
    subprocess.run(["gnuplot"], text=True, check=True, cwd=folder, input="""
        set terminal svg size 1200,600 background "white"
        set output "ratios.svg"
        set title "Cost of the connector relative to the raw baseline (growth, callers: to the first of each)"
        set style fill solid 0.6
        set boxwidth 0.7
        set logscale y 2
        set grid ytics
        set xtics rotate by 60 right noenhanced
        plot "ratios.dat" using 0:2:xtic(1) with boxes notitle, 1 with lines linecolor "black" notitle
    """)


def put_into_document(path, table):
    begin, end = "<!-- table: scripts/bench --docs -->\n", "<!-- end of table -->"
    text = open(path).read()
    before, rest = text.split(begin)
    open(path, "w").write(before + begin + "\n" + table + "\n" + end + rest.split(end)[1])


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("folder", nargs="?")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--secs", type=float, default=0.4, help="measured time of one run")
    parser.add_argument("--only", default="", help="sections, comma-separated: " + ",".join(SECTIONS))
    parser.add_argument("--docs", action="store_true", help="put the table into docs/performance.md")
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--document", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    folder = options.folder or options.programs + "/../results"
    os.makedirs(folder, exist_ok=True)
    sections = [s for s in SECTIONS if not options.only or s in options.only.split(",")]

    rows = measure(options, sections)
    with open(folder + "/runs.jsonl", "w") as log:
        log.writelines(json.dumps(row) + "\n" for row in rows)
    lines, ratios = tables(rows, sections)
    about = (f"Medians of {options.rounds} interleaved rounds of {options.secs} s, {os.cpu_count()} processors, "
             f"Linux {os.uname().release}. Behind = stands the cost relative to the first column, or row: above 1 is worse, for times and rates alike.")
    table = "\n".join([about, "", *lines, *footprint(options)])
    open(folder + "/table.md", "w").write(table)
    plot(folder, ratios)
    if options.docs:
        put_into_document(options.document, table)
    print(f"{table}\n{os.path.abspath(folder)}: table.md, ratios.svg, runs.jsonl")


main()
