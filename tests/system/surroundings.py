#!/usr/bin/env python3
"""What surrounds the service stands still, runs out or is lost; the service goes on, or the next start works.

usage: surroundings.py BUILD-FOLDER [NAME-PATTERN]
"""
import concurrent.futures, contextlib, os, re, resource, signal, socket, subprocess, sys, time

from handset import DEADLINE, SERVICE, Handset, wait_for

READY = "BTZVK controller is ready"
SERVED = "ready answered closed"


def require(condition, text):
    if not condition:
        raise AssertionError(text)


def start(handset):
    handset.start_service()
    require(wait_for(lambda: READY in handset.log()), "the controller is not brought up")


def said_by(stack):
    try:
        return " ".join(stack.communicate(timeout=DEADLINE)[0].decode().split())
    except subprocess.TimeoutExpired:
        return "hangs"


def serve(handset):
    said = said_by(handset.start_stack("main", "0", "await", "30"))
    require(said == SERVED, f"a stack is served like this: {said}")


def serve_the_next(handset):
    """As a supervisor does it."""
    for _ in range(3):
        if handset.service.poll() is not None:
            handset.start_service()
        with contextlib.suppress(AssertionError):
            serve(handset)
            return
    serve(handset)


@contextlib.contextmanager
def stopped(process):
    process.send_signal(signal.SIGSTOP)
    os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)  # until all its threads stand still
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)


def limit(process, what, most):
    """Returns the limits that there were."""
    _, hard = resource.prlimit(process.pid, what)
    return resource.prlimit(process.pid, what, (most, hard))


def no_descriptors(handset):
    start(handset)
    stack = handset.start_stack("main", "0", "await", "1500")
    require(wait_for(lambda: "initialize() completed" in handset.log()), "no stack is attached")
    used = len(os.listdir(f"/proc/{handset.service.pid}/fd"))
    limits = limit(handset.service, resource.RLIMIT_NOFILE, used)
    path = str(next(handset.root.glob("run/bthal/socket.*")))
    held = []  # one may still be accepted: a descriptor that was counted is free again

    def refused():
        held.append(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
        held[-1].connect(path)
        return wait_for(lambda: "cannot accept a connection" in handset.log(), 0.1)

    require(wait_for(refused), "connections are accepted without an end")
    require(said_by(stack) == SERVED, "the stack is not served on")
    for client in held:
        client.close()
    resource.prlimit(handset.service.pid, resource.RLIMIT_NOFILE, limits)
    require(handset.service.poll() is None, "the service ends")
    serve(handset)


def no_memory(handset):
    start(handset)
    with open(f"/proc/{handset.service.pid}/statm") as statm:
        used = int(statm.read().split()[0]) * resource.getpagesize()
    limits = limit(handset.service, resource.RLIMIT_AS, used)
    stack = handset.start_stack("main", "0", "none", "200")
    require(wait_for(lambda: stack.poll() is not None or handset.service.poll() is not None), "a call does not return")
    if handset.service.poll() is None:
        resource.prlimit(handset.service.pid, resource.RLIMIT_AS, limits)
    stack.kill()
    serve_the_next(handset)


def stack_stands_still(handset):
    start(handset)
    stack = handset.start_stack("main", "0", "await", "100")
    require(wait_for(lambda: "initialize() completed" in handset.log()), "no stack is attached")
    with stopped(stack):
        code, output = handset.ctl("activity")  # others are served
        require(code == 0, f"activity: {output}")
    require(said_by(stack) == SERVED, "the stack is not served on")


def provider_stands_still(handset):
    start(handset)
    provider = handset.start([handset.bin / "zvkpowerstats"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                             env={**os.environ, "BTHAL_ROOT": str(handset.root)})
    serve(handset)
    with stopped(provider):
        serve(handset)
        serve(handset)
    serve(handset)


def simulator_stands_still(handset):
    """A stack waits as long; a bring-up ends with a reason, and the next one works."""
    start(handset)
    stack = handset.start_stack("main", "0", "await", "1000")
    require(wait_for(lambda: "initialize() completed" in handset.log()), "no stack is attached")
    with stopped(handset.simulator):
        time.sleep(0.5)
    require(said_by(stack) == SERVED, "the stack is not served on")
    handset.service.kill()
    handset.service.wait()
    with stopped(handset.simulator):
        handset.start_service()
        require(wait_for(lambda: handset.service.poll() is not None), "a bring-up without a controller does not end")
    require(handset.service.returncode == -signal.SIGABRT and handset.files("data/vendor/ssrdump/crashinfo*"),
            f"no report: {handset.service.returncode}")
    serve_the_next(handset)


def line_hangs_up_and_service_ends(handset):
    start(handset)
    serve(handset)
    with stopped(handset.service):  # a read in the midst of a hang-up fails instead of meeting the end, and aborts it
        handset.simulate("hangup")
    require(wait_for(lambda: "Unexpected EOF" in handset.log()), "nobody notices")
    handset.service.terminate()
    require(wait_for(lambda: "PowerControl: Disabling" in handset.log().split("Caught Signal!")[-1]), "it is not closed")
    count = handset.log().count("Unexpected EOF")
    require(count < 10, f"the end of the line is read {count} times")
    handset.service.kill()
    handset.service.wait()
    serve_the_next(handset)


def service_stands_still(handset):
    start(handset)
    stack = handset.start_stack("main", "0", "await", "1000")
    require(wait_for(lambda: "initialize() completed" in handset.log()), "no stack is attached")
    with stopped(handset.service):
        client = subprocess.run([handset.bin / "bthalctl", "--root", handset.root, "--wait", "1", "status"],
                                capture_output=True, timeout=DEADLINE)
        require(b"does not answer" in client.stdout + client.stderr, f"bthalctl says {client.stdout + client.stderr}")
    require(said_by(stack) == SERVED, "the stack is not served on")
    serve(handset)


CASES = [no_descriptors, stack_stands_still, line_hangs_up_and_service_ends, provider_stands_still, simulator_stands_still,
         service_stands_still]


def play(build, case, options):
    with Handset(build, options=options) as handset:
        try:
            case(handset)
            require(wait_for(lambda: '"held": true' not in handset.status()), "a wake lock is held")
        except AssertionError as error:
            return f"{error}\n" + "\n".join(handset.log().splitlines()[-100:])


def main():
    build, pattern = sys.argv[1], sys.argv[2] if len(sys.argv) > 2 else ""
    with open(f"{build}/bin/{SERVICE}", "rb") as program:
        sanitized = re.search(b"__(asan|tsan)_init", program.read())
    cases = CASES + ([] if sanitized else [no_memory])  # a sanitizer reserves more than there is
    plays = [(case, []) for case in cases] + [(case, ["--co-processor"]) for case in CASES if case in (
        stack_stands_still, simulator_stands_still)]
    plays = [(case, options) for case, options in plays if re.search(pattern, case.__name__)]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        for (case, options), trouble in zip(plays, pool.map(lambda play_: play(build, *play_), plays)):
            print("FAILED" if trouble else "ok", case.__name__, *options, trouble or "", flush=True)
            failed += bool(trouble)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
