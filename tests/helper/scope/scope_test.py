#!/usr/bin/python3
"""The mount agent's helper runs in scopes of their own, tried against a user
bus of its own (a private dbus-daemon) on which a stand-in for the systemd user
manager answers StartTransientUnit the way the manager does: it creates the
scope's control group and moves the process there.

Usage: scope_test.py AGENT. Exit status 0 when every case holds, 77 when the
machine cannot run it (no dbus-daemon, no writable control-group tree)."""
import os
import shutil
import subprocess
import sys
import tempfile
import threading

SKIP = 77


def skip(reason):
    print("SKIPPED:", reason)
    sys.exit(SKIP)


try:
    import dbus
    import dbus.service
    from dbus.mainloop.glib import DBusGMainLoop
    from gi.repository import GLib
except ImportError as e:
    skip("python3-dbus or python3-gi missing: %s" % e)

agent = sys.argv[1]
if not shutil.which("dbus-daemon"):
    skip("no dbus-daemon")


def cgroup_root():
    """A control-group tree this process may make groups in."""
    for root in ("/sys/fs/cgroup", "/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified"):
        if os.path.exists(os.path.join(root, "cgroup.procs")) and os.access(root, os.W_OK):
            return root
    return None


root = cgroup_root()
if root is None:
    skip("no writable control-group tree")

work = tempfile.mkdtemp(prefix="kd-scope-test-")
base = os.path.join(root, "kd-scope-test-%d" % os.getpid())
os.mkdir(base)
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED:", what)


class FakeManager(dbus.service.Object):
    """Answers StartTransientUnit; `refuse` makes it fail as the manager would
    for a unit that exists already."""

    def __init__(self, bus):
        super().__init__(bus, "/org/freedesktop/systemd1")
        self.calls = []
        self.refuse = False

    @dbus.service.method("org.freedesktop.systemd1.Manager",
                         in_signature="ssa(sv)a(sa(sv))", out_signature="o")
    def StartTransientUnit(self, name, mode, properties, aux):
        props = {str(k): v for k, v in properties}
        self.calls.append((str(name), str(mode), props))
        if self.refuse:
            raise dbus.exceptions.DBusException(
                "Unit %s already exists." % name,
                name="org.freedesktop.systemd1.UnitExists")
        group = os.path.join(base, str(name))
        os.makedirs(group, exist_ok=True)
        for pid in props.get("PIDs", []):
            with open(os.path.join(group, "cgroup.procs"), "w") as f:
                f.write(str(int(pid)))
        return dbus.ObjectPath("/org/freedesktop/systemd1/job/1")


socket = os.path.join(work, "bus")
daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                           "--address=unix:path=" + socket, "--print-address"],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
address = daemon.stdout.readline().decode().strip()
env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address)
env.pop("JOURNAL_STREAM", None)


def run_trampoline():
    """Runs the agent's trampoline with `cat /proc/self/cgroup` as the helper."""
    return subprocess.run([agent, "--in-scope", "/bin/cat", "/proc/self/cgroup"], env=env,
                          capture_output=True, text=True, timeout=30)


def in_loop(job):
    """Runs job() on a thread while the main loop serves the bus."""
    loop = GLib.MainLoop()
    result = {}

    def worker():
        try:
            result["value"] = job()
        finally:
            GLib.idle_add(loop.quit)

    threading.Thread(target=worker).start()
    loop.run()
    return result.get("value")


try:
    # No manager on the bus: the helper runs where it is, without a word.
    run = run_trampoline()
    check(run.returncode == 0, "runs without a manager: status %d" % run.returncode)
    check("app-ferrimo-helper-" not in run.stdout, "no scope without a manager")
    check(run.stderr == "", "no warning without a manager: %r" % run.stderr)

    DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(address)
    name = dbus.service.BusName("org.freedesktop.systemd1", bus)
    manager = FakeManager(bus)

    # The manager makes the scope: the helper starts inside it.
    run = in_loop(run_trampoline)
    check(run.returncode == 0, "runs in a scope: status %d, %s" % (run.returncode, run.stderr))
    check(len(manager.calls) == 1, "one request: %r" % manager.calls)
    if manager.calls:
        unit, mode, props = manager.calls[0]
        check(unit.startswith("app-ferrimo-helper-") and unit.endswith(".scope"), "unit " + unit)
        check(mode == "fail", "mode " + mode)
        check(len(props.get("PIDs", [])) == 1, "one process: %r" % props.get("PIDs"))
        check(("/" + unit + "\n") in run.stdout, "the helper runs in %s: %s" % (unit, run.stdout))
    check(run.stderr == "", "no warning: %r" % run.stderr)

    # The manager refuses: a warning, and the helper runs all the same.
    manager.refuse = True
    run = in_loop(run_trampoline)
    check(run.returncode == 0, "runs after a refusal: status %d" % run.returncode)
    check("already exists" in run.stderr, "the refusal is reported: %r" % run.stderr)
finally:
    daemon.terminate()
    daemon.wait()
    # Move this process's children out and remove the groups made.
    for dirpath, dirnames, _ in os.walk(base, topdown=False):
        for d in dirnames:
            try:
                os.rmdir(os.path.join(dirpath, d))
            except OSError:
                pass
    try:
        os.rmdir(base)
    except OSError:
        pass
    shutil.rmtree(work, ignore_errors=True)

if failures:
    sys.exit(1)
print("all checks hold")
