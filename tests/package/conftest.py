"""A clean Debian tree with the package in it, its own system bus, and users of three kinds."""

import os
import pathlib
import shutil
import subprocess

import pytest
from sim.bus import wait_until

TOP = pathlib.Path(__file__).resolve().parents[2]
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME", pathlib.Path.home() / ".cache")) / "wexd"
PACKAGES = "dbus,systemd,libfmt9,libglib2.0-0,python3-gi"


def pytest_addoption(parser):
    parser.addoption("--package", required=True, help="the Debian package under test")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def mirror():
    """Where this machine's packages come from."""
    sites = run("apt-get", "indextargets", "--format", "$(REPO_URI)", "Created-By: Packages")
    return sites.splitlines()[0]


@pytest.fixture(scope="session")
def clean_tree():
    """A Debian tree that nothing was ever installed in; made once per machine."""
    tree = CACHE / ("debian-" + "-".join(sorted(PACKAGES.split(","))))
    if not tree.exists():
        CACHE.mkdir(parents=True, exist_ok=True)
        half = tree.with_suffix(".part")
        shutil.rmtree(half, ignore_errors=True)
        run("debootstrap", "--variant=minbase", f"--include={PACKAGES}", "bookworm", str(half),
            mirror())  # fmt: skip
        half.rename(tree)
    return tree


class Tree:
    """The installed tree; commands run in it, as whom they like."""

    def __init__(self, root):
        self.root = root
        self.processes = []

    def path(self, inside):
        return self.root / inside.lstrip("/")

    def command(self, *command, user=None):
        become = ["setpriv", "--reuid", user, "--regid", user, "--init-groups"] if user else []
        return ["chroot", str(self.root), *become, *command]

    def run(self, *command, user=None):
        return run(*self.command(*command, user=user))

    def start(self, *command, log):
        process = subprocess.Popen(
            self.command(*command), stdout=log.open("w"), stderr=subprocess.STDOUT
        )
        self.processes.append(process)
        return process

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()


@pytest.fixture(scope="session")
def installed(clean_tree, tmp_path_factory, pytestconfig):
    """The clean tree with the package installed, as `apt` would."""
    scratch = tmp_path_factory.mktemp("tree")
    for name in ("upper", "work", "root"):
        (scratch / name).mkdir()
    root = scratch / "root"
    layers = f"lowerdir={clean_tree},upperdir={scratch}/upper,workdir={scratch}/work"
    run("mount", "-t", "overlay", "overlay", "-o", layers, str(root))
    run("mount", "-t", "proc", "proc", str(root / "proc"))
    run("mount", "--rbind", "--make-rslave", "/dev", str(root / "dev"))
    try:
        package = pathlib.Path(pytestconfig.getoption("--package"))
        shutil.copy(package, root / "tmp/wexd.deb")
        tree = Tree(root)
        tree.run("dpkg", "-i", "/tmp/wexd.deb")
        yield tree
    finally:
        run("umount", "-R", str(root / "dev"))
        run("umount", str(root / "proc"))
        run("umount", str(root))


@pytest.fixture(scope="session")
def running(installed, tmp_path_factory):
    """The tree with a system bus and the daemon on it, as the README's reader gets it."""
    logs = tmp_path_factory.mktemp("logs")
    installed.run("mkdir", "-p", "/run/dbus")
    installed.run("useradd", "--system", "--groups", "wxd", "member")
    installed.run("useradd", "--system", "stranger")
    installed.path("/usr/share/wexd/conf.xml").write_text(
        "<config><port name='relay' optional='true'><port_no nbr='0'/><port_type type='output'/>"
        "<properties ioport='true'/><backend name='check'/></port></config>"
    )
    installed.daemon_log = logs / "wexd"
    installed.start("dbus-daemon", "--system", "--nofork", "--nopidfile", log=logs / "bus")
    wait_until(
        installed.path("/run/dbus/system_bus_socket").is_socket, "the system bus", deadline=20
    )
    installed.daemon = installed.start("/usr/sbin/wexd", log=installed.daemon_log)

    def ready():
        names = installed.run("busctl", "list", "--no-legend")
        return all(
            name in names
            for name in (
                "com.norv.IOControl.State", "com.norv.WXD.Connector",
                "com.norv.IOSupervised.Supervised",
                "com.norv.Configuration.Legacy.IOControl1.IOPort",
            )
        )  # fmt: skip

    try:
        wait_until(ready, "the daemon's names", deadline=20)
        yield installed
    finally:
        installed.stop()
