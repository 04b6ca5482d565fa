"""Prints the table of scripts/bench."""

import argparse
import json
import sys

SIZES = (1, 10, 100, 1000)


def medians(path):
    with open(path, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    return {run["run_name"]: run for run in runs if run.get("aggregate_name") == "median"}


class Table:
    def __init__(self, runs):
        self.runs = runs

    def value(self, name, field="real_time"):
        for run_name, run in self.runs.items():
            plain = run_name
            for suffix in ("/manual_time", "/real_time", "/iterations:20", "/iterations:1", "/repeats:5", "/repeats:3"):
                plain = plain.replace(suffix, "")
            if plain == name:
                return run[field]
        sys.exit(f"report.py: no result of {name}")

    def ratio(self, text, ours, reference, limit=None, unit="ns"):
        ratio = ours / reference
        self.row(text, f"{ratio:.2f}", limit, ratio, f"{ours:.1f} / {reference:.1f} {unit}")

    def count(self, text, number, limit):
        self.row(text, f"{number:g}", limit, number, "")

    def row(self, text, shown, limit, number, raw):
        verdict = "" if limit is None else "held" if number <= limit else "MISSED"
        print(f"{text:<58} {shown:>9} {'' if limit is None else f'{limit:g}':>6} {verdict:<7} {raw}")


def address_ratios(table, family):
    def ratio(text, ours, reference, limit=None):
        table.ratio(f"address, {text}, {family}", table.value(ours), table.value(reference), limit)

    ratio("parse / getaddrinfo", f"ipParse/Ours{family}", f"ipGetaddrinfo/{family}", 1.05)
    ratio("parse / inet_pton", f"ipParse/Ours{family}", f"ipInetPton/{family}")
    ratio("print / inet_ntop", f"ipPrint/Ours{family}", f"ipInetNtop/{family}")
    not_slower = 1.05  # what noise may make of equal times
    for name, limit in (("Parse", None), ("Print", None), ("Compare", not_slower), ("Family", not_slower),
                        ("Loopback", None), ("Copy", not_slower)):
        ratio(f"{name.lower()} / Asio's", f"ip{name}/Ours{family}", f"ip{name}/Asio{family}", limit)
    ratio("copy / copy of its 128 bytes", f"ipCopy/Ours{family}", "ipCopyStorage")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("results", metavar="RESULTS.json")
    parser.add_argument("instructions", metavar="INSTRUCTIONS", type=float)
    parser.add_argument("allocations", metavar="ALLOCATIONS", type=float)
    parser.add_argument("hardened", metavar="HARDENED-RESULTS.json")
    arguments = parser.parse_args()
    table = Table(medians(arguments.results))
    value = table.value
    print(f"{'ours / reference':<58} {'ratio':>9} {'limit':>6} {'':<7} medians")

    for n in SIZES:
        table.ratio(f"add and remove / Asio timer, {n} registered", value(f"addRemove/{n}"), value(f"addRemoveTimer/{n}"))
    for n in SIZES:
        table.ratio(f"sequential batch of {n}, per item / its parts", value(f"batch/Sequential/{n}") / n,
                    value("executionParts"), 1.2)
    for n in SIZES:
        table.ratio(f"thread-pool batch of {n} / bare pool", value(f"batch/ThreadPool/{n}"), value(f"barePool/{n}"),
                    1 if n <= 100 else None)
    table.ratio("hardware_concurrency() / thread-pool batch of 1", value("hardwareConcurrency"), value("batch/ThreadPool/1"))
    for strategy in ("Sequential", "ThreadPool"):
        for n in SIZES:
            table.ratio(f"pass of {n}, {strategy}, per item / expiry of a timer", value(f"pass/{strategy}/{n}") / n,
                        value(f"timerExpiry/{n}") / n, 1 if (strategy, n) == ("Sequential", 1000) else None)
    table.ratio("pass whose next due time has passed / by hand", value("overduePass"), value("overduePassByHand"), 1.2)
    for n in SIZES:
        table.ratio(f"pass of {n}, Sequential, per item / by hand", value(f"pass/Sequential/{n}", "cpu_time") / n,
                    value(f"passByHand/{n}", "cpu_time") / n, 1.15)
    for field in ("median", "p99"):
        table.ratio(f"lateness at 1 ms, {field} / clock_nanosleep loop", value("lateness/function", field),
                    value("lateness/clock_nanosleep", field))
    if "addressChange<ThroughLibrary>/iterations:1/repeats:5/real_time" in table.runs:  # else no network namespaces here
        table.ratio("address change until its callback / netlink poll loop", value("addressChange<ThroughLibrary>", "median"),
                    value("addressChange<ThroughBareLoop>", "median"), 1.2)
    table.ratio("open code barrier / relaxed atomic read", value("crossOpenBarrier"), value("bareAtomicLoad"), 1.3)
    table.ratio("overshoot of a 10 us spin / one clock reading", value("waitSpinLock/10", "overshoot_ns"),
                value("readSteadyClock"))
    for name in ("bitmask", "twoComplement", "signed24", "signed48"):
        table.ratio(f"{name} / shifts by hand", value(f"{name}OfLibrary"), value(f"{name}ByHand"))
    for zone in ("TzSet", "TzUnset"):
        table.ratio(f"toUtcString / strftime, {zone}", value(f"timeText/{zone}"), value(f"timeTextStrftime/{zone}"),
                    1.3)
    for family in ("V4", "V6"):
        address_ratios(table, family)
    table.ratio("fileToString of 100 MiB / read(2) into a string", value("fileToStringOfLibrary"),
                value("fileToStringByRead"), 1.15, "ms")
    table.ratio("its peak memory / that of read(2) into a string", value("fileToStringOfLibrary", "peak"),
                value("fileToStringByRead", "peak"), 1.05, "bytes")
    for memory in (0, 1024):
        table.ratio(f"processor time of execute / posix_spawn, {memory} MiB more", value(f"runTrueExecute/{memory}"),
                    value(f"runTrueSpawn/{memory}"), 1.1 if memory == 0 else None)
        table.ratio(f"processor time of execute / bare fork, {memory} MiB more", value(f"runTrueExecute/{memory}"),
                    value(f"runTrueFork/{memory}"), 1.1 if memory == 0 else None)
    hardened = Table(medians(arguments.hardened))
    for build, one, limit in (("exact", table, None), ("hardened", hardened, 1.3)):
        table.ratio(f"time of execute / posix_spawn and waitpid, {build} build", one.value("timeTrueExecute"),
                    one.value("timeTrueSpawn"), limit)
    table.ratio("texts of a 5 KB document / bare libxml2", value("nodesTextOfLibrary"), value("nodesTextBare"), 1.1)
    table.ratio("disabled log call / relaxed atomic read", value("logDisabled"), value("relaxedRead"))
    table.ratio("severity guard / relaxed atomic read", value("severityGuard"), value("relaxedRead"))
    table.ratio("disabled log call / spdlog's", value("logDisabled"), value("logDisabledSpdlog"))
    by_hand = value("logEnabledByHand", "cpu_time")
    for text, name, limit in (("", "logEnabled", 1.2), (" to the process's sink", "logEnabledProcessWide", 1.5),
                              (" without values", "logEnabledWithoutValues", 1)):
        table.ratio(f"enabled log call{text} / by hand", value(name, "cpu_time"), by_hand, limit)
    table.ratio("enabled log call / spdlog's", value("logEnabled"), value("logEnabledSpdlog"))

    print()
    table.count("ns of the processor that a severity guard takes", round(value("severityGuard", "cpu_time"), 1), 2)
    table.count("instructions of a disabled log call", arguments.instructions, 35)
    table.count("allocations of disabled log calls", arguments.allocations, 0)
    table.count("allocations of a sequential pass of 1000", value("pass/Sequential/1000", "allocations"), 1)
    table.count("ns of the processor that measuring adds to a run",
                round(value("measuredRun", "cpu_time") - value("plainRun", "cpu_time")), 300)
    table.count("allocations of a measured run", value("measuredRun", "allocations"), 0)
    for name in ("Print", "Compare", "Family", "Loopback", "Copy"):
        for family in ("V4", "V6"):
            limit = 1 if (name, family) == ("Print", "V6") else 0  # longer than what fits into a string object
            table.count(f"allocations of address, {name.lower()}, {family}",
                        value(f"ip{name}/Ours{family}", "allocations"), limit)
    table.count("wake-ups of an idle manager in 2 s", value("idleWakeUps", "wakeUps"), 0)


main()
