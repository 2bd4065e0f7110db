#!/usr/bin/env python3
"""Who may do what: each row of rights.txt as root, as the service's user, as a member of its group, as anybody else. Needs root.

usage: rights.py BUILD-FOLDER TABLE
"""
import os, random, shutil, signal, socket, subprocess, sys

from handset import DEADLINE, SERVICE, Handset, wait_for

USER = GROUP = 41001  # of the service
ROLES = {"root": (0, 0), "the service's user": (USER, GROUP), "a member of its group": (41002, GROUP), "anybody else": (41003, 41003)}


class ServiceOfAUser(Handset):
    """All of the handset belongs to the service's user."""

    def __init__(self, build, root):
        shutil.rmtree(root, ignore_errors=True)
        os.mkdir(root)
        os.chown(root, USER, GROUP)
        super().__init__(build, root=root)

    def start(self, command, **how):
        user, group = ROLES["the service's user"]
        return super().start(command, **{"user": user, "group": group, "extra_groups": [], "umask": 0o022, **how})


def run_as(role, command, root):
    user, group = ROLES[role]
    return subprocess.run([str(word) for word in command], user=user, group=group, extra_groups=[], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=DEADLINE, cwd="/", env={**os.environ, "BTHAL_ROOT": str(root)})


def may(role, action, handset):
    """Whether role can do it, and what it was told."""
    word, _, rest = action.partition(" ")
    if word == "bthalctl":
        command = [handset.bin / word, "--root", handset.root, "--wait", "0.2", *rest.split()]
    elif word == "zvksim":
        command = [handset.bin / word, "ctl", handset.root, *rest.split()[1:]]
    elif word == "service":
        command = ["timeout", "1", handset.bin / SERVICE]  # 124 when it runs on
    else:
        path = handset.files(rest)[0]
        command = ["cat", path] if word == "READ" else ["sh", "-c", 'ln -s /etc/passwd "$1.planted" && rm "$1.planted"', "sh", path]
    done = run_as(role, command, handset.root)
    return done.returncode in (0, 124), (done.stdout + done.stderr).decode(errors="replace")[-300:]


def prepare(handset):
    """Leaves one of each file, and a service that runs on."""
    with open(handset.root / "vendor/build.prop", "a") as properties:
        properties.write("persist.bluetooth.capture=pcapng:1m:2\n")
    handset.simulate("on", "0x0C03", "nth", "2", "no-answer")  # the first bring-up fails, with a report
    handset.start_service()
    handset.service.wait(DEADLINE)
    handset.start_service()
    if not wait_for(lambda: "BTZVK controller is ready" in handset.log()):
        raise RuntimeError(handset.log())


def harass(handset, role, seed):
    """A client that may connect, and does all that it should not. Connections that read nothing stay."""
    pid = os.fork()
    if pid:
        return pid
    try:
        user, group = ROLES[role]
        os.setgroups([])
        os.setresgid(group, group, group)
        os.setresuid(user, user, user)
        chance = random.Random(seed)
        path = str(next(handset.root.glob("run/bthal/socket.*")))
        held = []
        while True:
            try:
                peer = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
                peer.connect(path)
                peer.settimeout(0.05)
                held.append(peer)
                for _ in range(chance.randrange(50)):
                    peer.send(chance.randbytes(chance.choice([1, 7, 48, 64, 1000, 60000])))
            except OSError:
                pass
            if len(held) > 20:
                held.pop(chance.randrange(len(held))).close()
    finally:
        os._exit(1)


def main():
    build, table = sys.argv[1:]
    # Anybody can come as far as this folder, and start copies of the programs.
    root = f"/tmp/rights-{os.getpid()}"
    programs = f"{root}.build"
    shutil.copytree(f"{build}/bin", f"{programs}/bin")
    os.makedirs(f"{programs}/tests")
    shutil.copy(f"{build}/tests/system_test_stack", f"{programs}/tests")
    failed = 0
    try:
        with ServiceOfAUser(programs, root) as handset, open(table) as rows:
            prepare(handset)
            for line in rows:
                if not line.strip() or line.startswith("#"):
                    continue
                action, *expected = (field.strip() for field in line.split("|"))
                for role, wanted in zip(ROLES, expected):
                    done, told = may(role, action, handset)
                    if done != (wanted == "yes"):
                        failed += 1
                        print(f"FAILED {role}: {action}: {'done' if done else 'refused'}, not {wanted}: {told}")
            # A root folder as the packages make it.
            os.chmod(root, 0o750)
            if may("anybody else", "READ data/vendor/ssrdump/crashinfo_bt_*.txt", handset)[0]:
                failed += 1
                print("FAILED: a root folder of 0750 is open to others")
            os.chmod(root, 0o755)
            # Harm to others.
            tormentors = [harass(handset, "a member of its group", seed) for seed in (1, 2)]
            for _ in range(3):
                done, told = may("the service's user", "bthalctl --wait 20 loopback --bytes 50000", handset)
                if not done:
                    failed += 1
                    print(f"FAILED: a client harms another: {told}")
            for pid in tormentors:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            if handset.service.poll() is not None:
                failed += 1
                print(f"FAILED: a client ends the service: {handset.log()[-3000:]}")
            elif not may("the service's user", "bthalctl --wait 20 loopback --bytes 5000", handset)[0]:
                failed += 1
                print("FAILED: a client leaves harm behind")
    finally:
        shutil.rmtree(programs)
    print(f"{failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
