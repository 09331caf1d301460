#!/usr/bin/env python3
"""Runs orv-assistant over every command of the embedded service's grammar, said
by two eSpeak NG voices in real time, and over ten sentences without the wake
phrase; prints the figures of the runs as a Markdown section for RESULTS.md.

    bench/pipeline_bench.py [build/default/bin/orv-assistant] [--repeat N]
"""
import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile

COMMANDS = [
    "turn on the kitchen light", "turn off the kitchen light",
    "turn on the bedroom light", "turn off the bedroom light",
    "turn on the living room light", "turn off the living room light",
    "turn on the bathroom light", "turn off the bathroom light",
    "what time is it", "play music", "stop music",
]
VOICES = ["en-us", "en"]
WITHOUT_PHRASE = [
    "the weather is nice today", "can you pass me the salt please",
    "I will meet you at the station tomorrow", "turn on the kitchen light",
    "computers are everywhere these days", "what time is it",
    "the robot is in the kitchen", "please listen to me carefully",
    "the assistant manager said hello", "okay let us go to the cinema",
]

FIGURES = re.compile(r"end of speech to final (-?\d+) ms, final to first reply audio (-?\d+) ms")
RUNTIME = re.compile(r"runtime CPU ([\d.]+) ms over ([\d.]+) s streamed \(([\d.]+) % of one core; "
                     r"spotter ([\d.]+) ms apart\), threads (\d+), peak RSS ([\d.]+) MB")


def run(program, data_dir, args):
    result = subprocess.run([program, "--data-dir", data_dir] + args, capture_output=True,
                            text=True, timeout=120)
    return result.returncode, result.stdout + result.stderr


def summary(values):
    return "%.0f / %.0f" % (statistics.median(values), max(values))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program", nargs="?", default="build/default/bin/orv-assistant")
    parser.add_argument("--repeat", type=int, default=1)
    args = parser.parse_args()
    data_dir = tempfile.mkdtemp(prefix="orv-pipeline-bench-")
    rows = {voice: {"ok": 0, "runs": 0, "final": [], "reply": [], "cpu": [], "threads": [],
                    "rss": [], "misses": []} for voice in VOICES}
    for _ in range(args.repeat):
        for voice in VOICES:
            for command in COMMANDS:
                status, out = run(args.program, data_dir, ["--say", command, "--voice", voice])
                row = rows[voice]
                row["runs"] += 1
                figures, runtime = FIGURES.search(out), RUNTIME.search(out)
                if status != 0 or not figures or not runtime:
                    failed = re.search(r"FAILED: (.*)", out)
                    row["misses"].append("%s: %s" % (command, failed.group(1) if failed else out[-200:]))
                    continue
                row["ok"] += 1
                row["final"].append(int(figures.group(1)))
                row["reply"].append(int(figures.group(2)))
                row["cpu"].append(float(runtime.group(3)))
                row["threads"].append(int(runtime.group(5)))
                row["rss"].append(float(runtime.group(6)))
                sys.stderr.write("%s %s: %s ms, %s ms\n" % (voice, command, figures.group(1),
                                                          figures.group(2)))
    false_wakeups = []
    for sentence in WITHOUT_PHRASE:
        status, out = run(args.program, data_dir, ["--utterance", sentence, "--fast"])
        if "no wake-up" not in out:
            false_wakeups.append(sentence)

    print("| voice | commands recognised word for word | end of speech to final, ms (median / worst) "
          "| final to first reply audio, ms (median / worst) | runtime CPU, % of one core (median / worst) "
          "| threads (max) | peak RSS, MB (max) |")
    print("|---|---|---|---|---|---|---|")
    for voice, row in rows.items():
        if not row["ok"]:
            print("| %s | 0 / %d | - | - | - | - | - |" % (voice, row["runs"]))
            continue
        print("| %s | %d / %d | %s | %s | %.2f / %.2f | %d | %.1f |" % (
            voice, row["ok"], row["runs"], summary(row["final"]), summary(row["reply"]),
            statistics.median(row["cpu"]), max(row["cpu"]), max(row["threads"]), max(row["rss"])))
    print()
    print("Wake-ups on %d sentences without the phrase: %d%s" % (
        len(WITHOUT_PHRASE), len(false_wakeups),
        (" (" + "; ".join(false_wakeups) + ")") if false_wakeups else ""))
    for row in rows.values():
        for miss in row["misses"]:
            print("- missed: " + miss)
    return 0 if all(not r["misses"] for r in rows.values()) and not false_wakeups else 1


if __name__ == "__main__":
    sys.exit(main())
