#!/usr/bin/env python3
"""Each row of system_call_faults.txt: calls of the service into the system fail, and it does what the row says.

usage: system_call_faults.py BUILD-FOLDER INJECTOR TABLE [ROW-PATTERN]
"""
import concurrent.futures, errno, mmap, os, re, signal, struct, sys, time

from handset import Handset, descriptors, threads, wait_for

READY = "BTZVK controller is ready"
SERVED = ["ready", "answered", "closed"]
DUMPED = "handle_bqr_.*: |total written|Failed to open socdump|socdump.* is not whole"


class Row:
    def __init__(self, line):
        fields = [field.strip() for field in line.split("|")]
        self.name = " | ".join(fields[:5])
        self.phase, self.call, self.where, which, error, outcomes, self.evidence = fields
        self.outcomes = outcomes.split(" or ")
        first, _, last = which.partition("-")
        self.first, self.last = int(first), 2**31 if last == "end" else int(last or first)
        self.error = 0 if error in ("half", "-") else int(getattr(errno, error, None) or error)

    def plan(self):
        return f"{self.call} {self.where} {self.first} {self.last} {self.error}"


class Control:
    """The file that injector and driver share: armed, calls counted, calls failed."""

    def __init__(self, path):
        path.write_bytes(bytes(12))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 12)

    def arm(self, on):
        struct.pack_into("=I", self.memory, 0, on)

    def failed(self):
        return struct.unpack("=3I", self.memory)[2]


def ended(handset):
    return handset.service.poll() is not None


def serve(handset, await_answer):
    """A stack comes, moves data and goes. What it said; nothing when the service ended."""
    stack = handset.start_stack("main", "0", "await" if await_answer else "none", "30")
    if not wait_for(lambda: ended(handset) or stack.poll() is not None):
        return ["hangs"]
    return [] if ended(handset) else stack.communicate()[0].decode().split()


def outcome_of_end(handset):
    code = handset.service.returncode
    tombstones = [path.read_text() for path in handset.files("data/tombstones/*")]
    reported = re.findall(r"Bluetooth HAL crash with error code 0, vendor error code (\d+)", handset.log())
    if code == -signal.SIGABRT and reported:
        return reported[0]
    if code == -signal.SIGABRT and any("Abort message" in tombstone for tombstone in tombstones):
        return "abort"
    if code == -signal.SIGKILL and re.search("[Cc]alling kill", handset.log()):
        return "kill"
    return "refuses" if code in (0, 1) else f"end with {code}, without a reason"


def fault(handset, injector, row):
    """Plays the row. Returns the outcome, as the table names it, and how many calls have failed."""
    if row.phase == "fatal":  # the bring-up fails, with a report
        handset.simulate("on", "0x0C03", "nth", "2", "no-answer")
    control = Control(handset.root / "fault_control")
    control.arm(row.phase in ("start", "plain", "fatal"))
    handset.start_service({"BTHAL_FAULT": row.plan(), "BTHAL_FAULT_CONTROL": str(handset.root / "fault_control"),
                           "LD_PRELOAD": injector,
                           "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"})
    if row.phase != "plain":
        wait_for(lambda: ended(handset) or READY in handset.log())
    control.arm(1)
    if row.phase == "dump" and not ended(handset):
        handset.simulate("crash", "0x00", "0x10")
        handset.simulate("soc-dump", "3000")
        wait_for(lambda: ended(handset) or re.search(DUMPED, handset.log()), 10)
    lives = {"on", "unserved"} & set(row.outcomes)
    said = serve(handset, await_answer=row.outcomes == ["on"])
    # The stack may have been told before the process ended.
    if not lives or (said != SERVED and "unserved" not in row.outcomes):
        wait_for(lambda: ended(handset), 20)
    control.arm(0)
    if ended(handset):
        return outcome_of_end(handset), control.failed()
    return "on" if said == SERVED else "unserved", control.failed()


def left(handset):
    """What a service at rest has open and runs."""
    return descriptors(handset.service), threads(handset.service)


def play(build, injector, row, reference):
    """Returns what was wrong, a text each, and the log."""
    wrong = []
    with Handset(build, plain=row.phase == "plain") as handset:
        outcome, failed = fault(handset, injector, row)
        if failed == 0:
            wrong.append("no call has failed")
        if outcome not in row.outcomes:
            wrong.append(f"the outcome is: {outcome}")
        if row.evidence != "-" and not re.search(row.evidence, handset.log()):
            wrong.append("there is no evidence")
        for _ in range(3):  # a busy machine may make a bring-up fail, too: its supervisor goes on
            if ended(handset):
                handset.start_service()
            said = serve(handset, await_answer=True)
            if not ended(handset):
                break
        if said != SERVED:
            wrong.append(f"afterwards a stack is served like this: {said}")
        if names := handset.files("run/bthal/new-*"):
            wrong.append(f"unfinished names are left: {names}")
        if names := [file for file in handset.files("data/vendor/ssrdump/**/*.*") if file.stat().st_size == 0]:
            wrong.append(f"empty files are left: {names}")
        if not wait_for(lambda: '"held": true' not in handset.status()):
            wrong.append("a wake lock is held")
        more = lambda: [dict(now - usual) for now, usual in zip(left(handset), reference[row.phase == "plain"])]
        if not ended(handset) and not wait_for(lambda: more() == [{}, {}], 20):
            wrong.append(f"more than usual is open or runs: {more()}")
        return wrong, handset.log()


def at_rest(build, plain):
    """What a service has that has met no fault."""
    with Handset(build, plain=plain) as handset:
        handset.start_service()
        if serve(handset, await_answer=True) != SERVED:
            raise RuntimeError(f"a stack is not served: {handset.log()}")
        samples = [None]
        while samples != 5 * samples[:1]:
            time.sleep(0.02)
            samples = [left(handset), *samples[:4]]
        # A thread has an event descriptor of its own from its first call into another process on.
        samples[0][0]["anon_inode"] += 2
        return samples[0]


def main():
    build, injector, table, *pattern = sys.argv[1:]
    with open(table) as file:
        lines = [line.strip() for line in file if line.strip() and not line.startswith("#")]
    rows = [Row(line) for line in lines if not pattern or re.search(pattern[0], line)]
    began = time.monotonic()
    reference = [at_rest(build, False), at_rest(build, True)]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(4 * os.cpu_count()) as pool:
        results = pool.map(lambda row: play(build, injector, row, reference), rows)
        for row, (wrong, log) in zip(rows, results):
            if wrong or pattern:
                print(f"{'FAILED' if wrong else 'ok'} {row.name}: {'; '.join(wrong)}\n{log}", flush=True)
            failed += bool(wrong)
    print(f"count: {len(rows)} rows of failing system calls")
    print(f"{failed} failed, {time.monotonic() - began:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
