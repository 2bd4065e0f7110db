"""A simulated handset and the service on it, in a folder of their own: for tests written in Python."""
import contextlib, os, pathlib, re, shutil, subprocess, tempfile, time
from collections import Counter

DEADLINE = 60  # seconds; a test that needs them has failed
SERVICE = "android.hardware.bluetooth@1.1-service.zvkbtlinux"


def wait_for(condition, deadline=DEADLINE):
    """What condition() returns once that is true; false after the deadline."""
    end = time.monotonic() + deadline
    while not (result := condition()):
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return result


class Handset(contextlib.AbstractContextManager):
    """build: the build folder. plain: Bluetooth is brought up for a stack only."""

    def __init__(self, build, plain=False, options=(), root=None):
        self.bin = pathlib.Path(build, "bin")
        shared = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.root = pathlib.Path(root or tempfile.mkdtemp(prefix="handset-", dir=shared))
        self.log_path = self.root / "run/bthal/log"
        self.stderr_path = self.root / "stderr"
        self.stack_program = pathlib.Path(build, "tests/system_test_stack")
        self.children = []
        self.service = None
        output = self.root / "zvksim.log"
        command = [self.bin / "zvksim", "--root", self.root, "--firmware-size", "2000", *options]
        self.simulator = self.start(command, stdout=open(output, "wb"), stderr=subprocess.STDOUT)
        if not wait_for(lambda: b"ready " in output.read_bytes()):
            raise RuntimeError(f"zvksim is not ready: {output.read_bytes()}")
        if plain:
            with open(self.root / "vendor/build.prop", "a") as properties:
                properties.write("persist.bluetooth.disable.accelerate.bt.on=true\n")

    def __exit__(self, *_):
        for child in self.children:
            if child.poll() is None:
                child.kill()
            child.wait()
            if child.stdout:
                child.stdout.close()
        shutil.rmtree(self.root, ignore_errors=True)

    def start(self, command, **how):
        child = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, **how)
        self.children.append(child)
        return child

    def start_service(self, environment=None, **how):
        with open(self.stderr_path, "ab") as stderr:
            self.service = self.start([self.bin / SERVICE], stdout=stderr, stderr=stderr,
                                      env={**os.environ, "BTHAL_ROOT": str(self.root), **(environment or {})}, **how)
        return self.service

    def start_stack(self, *plan):
        return self.start([self.stack_program, *plan], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={**os.environ, "BTHAL_ROOT": str(self.root)})

    def ctl(self, *words, deadline=DEADLINE):
        done = subprocess.run([self.bin / "bthalctl", "--root", self.root, "--wait", "20", *words],
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=deadline)
        return done.returncode, (done.stdout + done.stderr).decode(errors="replace")

    def simulate(self, *step):
        """Has the simulator do something now."""
        subprocess.run([self.bin / "zvksim", "ctl", self.root, *step], check=True, capture_output=True,
                       timeout=DEADLINE)

    def log(self):
        """What the service wrote to standard error, in all of its lives: the log, and what has no line there."""
        return self.stderr_path.read_text(errors="replace") if self.stderr_path.exists() else ""

    def files(self, *patterns):
        return sorted(path for pattern in patterns for path in self.root.glob(pattern))

    def status(self):
        with contextlib.suppress(OSError):
            return (self.root / "run/zvksim/status").read_text()
        return ""


def descriptors(process):
    """What a process has open, each without numbers and without its folder."""
    targets = []
    for link in pathlib.Path(f"/proc/{process.pid}/fd").iterdir():
        with contextlib.suppress(OSError):
            target = os.readlink(link)
            targets.append("/dev/pts" if target.startswith("/dev/pts") else re.split(r":?\[", target.split("/")[-1])[0])
    return Counter(targets)


def threads(process):
    names = []
    for task in pathlib.Path(f"/proc/{process.pid}/task").iterdir():
        with contextlib.suppress(OSError):
            names.append((task / "comm").read_text().strip())
    return Counter(names)
