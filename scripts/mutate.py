#!/usr/bin/env python3
"""A mutation campaign over scenario files: each round takes a seeded random example scenario,
changes it a little the way a hostile or careless author would (numbers at and past their limits,
names swapped for other names, lines dropped, doubled or moved, bytes flipped, lists grown past
what a table holds, actions from other scenarios spliced in), and replays it with
`oba-evpn-sim --check` under a timeout (now and then with --state, --dot or the JSON log).
Every run must end in one of the simulator's promises: PASS (0), FAIL (1) or a refusal naming the
file and line (2), each with its line on standard error, or a machine's abort that the scenario
format documents (3). Anything else is a
finding and is kept, with what the simulator said, under OUT/findings:

  signal       killed by a signal (a crash)
  hang         still running at the timeout
  silent       an exit without a line on standard error
  status       an exit status outside 0-3
  abort        exit 3 that is not a documented abort (the simulator's own exception, an
               assertion of the simulator, or an assertion of a machine not in DOCUMENTED)

  scripts/mutate.py --sim build/default/sim/oba-evpn-sim --minutes 15 --seed 1 \
      --out /tmp/mutate scenarios/*.yaml

The summary (runs, outcomes, findings per class) goes to standard output at the end and every
ten seconds of progress to standard error. Exit status 1 when anything was found.
"""

import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import time

# The assertions a scenario may meet by the format's own word (docs/scenario-format.md): a host
# pointing straight at a destination, a chain the machine's chain length does not take, a chip
# answer the machine treats as fatal (invalidHwId, the decapsulation's conflict code), a second
# writer's non-MPLS destination in the MPLS-only flood sets. Their texts are the machines'.
DOCUMENTED = {
    "0",
    "maxChainLength() == 3",
    "label.next().tableType() != L2Rib::tableTypeLabel_",
    "label.next().tableType() == L2Rib::tableTypeDest_",
    "iter->tableType() != L2Rib::tableTypeLoadBalance_",
    "iter->tableType() == L2Rib::tableTypeDest_",
    "dest.destType() == L2Rib::destTypeTunnel_",
    '!"Unexpected rc. Conflict detection logic is already done in Oba"',
    "dest.destType() == L2Rib::destTypeMpls_",
}

NUMBERS = [
    "0", "1", "2", "3", "4", "7", "-1", "255", "256", "257", "4094", "4095", "4096", "65535",
    "65536", "1048575", "1048576", "1048577", "16777215", "16777216", "2147483647",
    "4294967295", "4294967296", "18446744073709551615", "18446744073709551616", "1e6",
    "1000000", "1000001", "1e300", "1e-300", "0.0000001", "0.5", "-0", "nan", "inf", ".inf",
    "0x10", "1_000", "01", "+1", "",
]
BYTES = list(":-[]{}, \t\"'&*!#%|>\n") + ["\\", "\u00e9", "\u5927", "~", "null", "none"]

TOKEN = re.compile(r"[A-Za-z][A-Za-z0-9_./:-]*")
NUMBER = re.compile(r"(?<![A-Za-z0-9_.])-?\d+(?:\.\d+)?(?![A-Za-z0-9_])")
ACTION_LINE = re.compile(r"^\s*- [A-Za-z]+: .*$")


class Mutator:
    def __init__(self, rng, corpus):
        self.rng = rng
        self.corpus = corpus
        self.tokens = sorted({t for text in corpus for t in TOKEN.findall(text)})
        self.actions = sorted({l.strip() for text in corpus for l in text.splitlines()
                               if ACTION_LINE.match(l)})

    def number(self, text):
        spots = list(NUMBER.finditer(text))
        if not spots:
            return self.byte(text)
        m = self.rng.choice(spots)
        new = self.rng.choice(NUMBERS) if self.rng.random() < 0.8 else str(
            self.rng.choice([self.rng.randrange(0, 10), self.rng.randrange(0, 1 << 33),
                             self.rng.randrange(0, 1 << 70)]))
        return text[:m.start()] + new + text[m.end():]

    def token(self, text):
        spots = list(TOKEN.finditer(text))
        if not spots:
            return self.byte(text)
        m = self.rng.choice(spots)
        new = self.rng.choice(self.tokens)
        if self.rng.random() < 0.2:  # a name with its number changed
            new = re.sub(r"\d+", lambda _: self.rng.choice(NUMBERS[:24]).lstrip("-"), new, count=1)
        return text[:m.start()] + new + text[m.end():]

    def lines(self, text):
        lines = text.split("\n")
        if len(lines) < 2:
            return self.byte(text)
        i = self.rng.randrange(len(lines))
        op = self.rng.randrange(4)
        if op == 0:
            del lines[i]
        elif op == 1:
            lines.insert(i, lines[i])
        elif op == 2 and i + 1 < len(lines):
            lines[i], lines[i + 1] = lines[i + 1], lines[i]
        else:
            lines.insert(self.rng.randrange(len(lines)), lines.pop(i))
        return "\n".join(lines)

    def byte(self, text):
        if not text:
            return self.rng.choice(BYTES)
        i = self.rng.randrange(len(text))
        op = self.rng.randrange(3)
        if op == 0:
            return text[:i] + text[i + 1:]
        if op == 1:
            return text[:i] + self.rng.choice(BYTES) + text[i:]
        return text[:i] + self.rng.choice(BYTES) + text[i + 1:]

    def grow(self, text):
        """A list grown past what a table or a group holds: a flow list's item, or a block line,
        repeated."""
        flows = list(re.finditer(r"\[([^\[\]\n]+)\]", text))
        if flows and self.rng.random() < 0.6:
            m = self.rng.choice(flows)
            items = m.group(1).split(", ")
            n = self.rng.choice([2, 17, 255, 256, 257, 300, 1000])
            grown = ", ".join(items[k % len(items)] for k in range(n))
            return text[:m.start()] + "[" + grown + "]" + text[m.end():]
        lines = text.split("\n")
        i = self.rng.randrange(len(lines))
        return "\n".join(lines[:i] + [lines[i]] * self.rng.choice([2, 50, 300]) + lines[i:])

    def splice(self, text):
        """An action of any example scenario, put where another action stands."""
        lines = text.split("\n")
        spots = [i for i, l in enumerate(lines) if ACTION_LINE.match(l)]
        if not spots or not self.actions:
            return self.token(text)
        i = self.rng.choice(spots)
        indent = lines[i][:len(lines[i]) - len(lines[i].lstrip())]
        new = indent + self.rng.choice(self.actions)
        if self.rng.random() < 0.5:
            lines[i] = new
        else:
            lines.insert(i + 1, new)
        return "\n".join(lines)

    def mutate(self, text):
        ops = [(self.number, 30), (self.token, 25), (self.lines, 12), (self.byte, 10),
               (self.grow, 6), (self.splice, 17)]
        for _ in range(1 + min(3, int(self.rng.expovariate(1.0)))):
            op = self.rng.choices([o for o, _ in ops], weights=[w for _, w in ops])[0]
            text = op(text)
        return text


def classify(status, err, timed_out):
    if timed_out:
        return "hang"
    if status < 0 or status >= 128:
        return "signal"
    if status > 3:
        return "status"
    if not err.strip():
        return "silent"
    if status == 3:
        m = re.search(r'aborted[^:]*: assertion "(.*)" failed at (\S+)', err)
        if not m or m.group(2).startswith("sim/") or m.group(1) not in DOCUMENTED:
            return "abort"
        return "documented abort"
    return {0: "pass", 1: "fail", 2: "refused"}[status]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--sim", required=True, help="the oba-evpn-sim binary")
    ap.add_argument("--minutes", type=float, default=15)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--timeout", type=float, default=20, help="seconds per run")
    ap.add_argument("--out", default="mutate-out")
    ap.add_argument("scenarios", nargs="+")
    a = ap.parse_args()

    corpus = [open(f, encoding="utf-8").read() for f in a.scenarios]
    rng = random.Random(a.seed)
    mutator = Mutator(rng, corpus)
    work = os.path.join(a.out, "work")
    findings = os.path.join(a.out, "findings")
    os.makedirs(work, exist_ok=True)
    os.makedirs(findings, exist_ok=True)

    counts = {}
    found = 0
    start = last = time.monotonic()
    runs = 0
    while time.monotonic() - start < a.minutes * 60:
        k = rng.randrange(len(corpus))
        text = mutator.mutate(corpus[k])
        path = os.path.join(work, "m%d.yaml" % (runs % 8))
        with open(path, "w", encoding="utf-8", errors="surrogateescape") as f:
            f.write(text)
        # Mostly the check alone; now and then the state printed, the picture drawn, the JSON log.
        options = rng.choices([["--quiet"], ["--quiet", "--state"],
                               ["--quiet", "--dot", os.path.join(work, "final.dot")], ["--json"]],
                              weights=[70, 10, 10, 10])[0]
        timed_out = False
        try:
            p = subprocess.run([a.sim, "--check"] + options + [path], stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, timeout=a.timeout)
            status, err = p.returncode, p.stderr.decode("utf-8", "replace")
        except subprocess.TimeoutExpired as e:
            timed_out, status = True, -1
            err = (e.stderr or b"").decode("utf-8", "replace")
        outcome = classify(status, err, timed_out)
        counts[outcome] = counts.get(outcome, 0) + 1
        runs += 1
        if outcome not in ("pass", "fail", "refused", "documented abort"):
            found += 1
            base = os.path.join(findings, "%s-%d" % (outcome, runs))
            shutil.copy(path, base + ".yaml")
            with open(base + ".txt", "w", encoding="utf-8") as f:
                f.write("source: %s\noptions: %s\nstatus: %s\n%s"
                        % (a.scenarios[k], " ".join(options), status, err[-4000:]))
        now = time.monotonic()
        if now - last >= 10:
            last = now
            print("%6.0f s: %d runs, %d findings" % (now - start, runs, found), file=sys.stderr)

    elapsed = time.monotonic() - start
    print("mutation campaign: seed %d, %d scenarios, %.1f minutes, %d runs (%.1f/s), timeout %g s"
          % (a.seed, len(corpus), elapsed / 60, runs, runs / elapsed, a.timeout))
    for outcome in sorted(counts):
        print("  %-17s %d" % (outcome, counts[outcome]))
    print("findings: %d%s" % (found, " (in %s)" % findings if found else ""))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
