"""A clean Debian system, booted, with the package installed as the README says, and users of three
kinds on it."""

import os
import pathlib
import re
import shutil

import pytest
from machine import Machine, run
from sim.bus import wait_until

TOP = pathlib.Path(__file__).resolve().parents[2]
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME", pathlib.Path.home() / ".cache")) / "wexd"
PACKAGES = "dbus,systemd,libfmt9,libglib2.0-0,libncursesw6,python3-gi"


def pytest_addoption(parser):
    parser.addoption("--package", required=True, help="the Debian package under test")


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


@pytest.fixture(scope="session")
def machine(clean_tree, tmp_path_factory):
    """The clean tree, booted; what is written in it goes with the run."""
    scratch = tmp_path_factory.mktemp("tree")
    for name in ("upper", "work", "root"):
        (scratch / name).mkdir()
    root = scratch / "root"
    layers = f"lowerdir={clean_tree},upperdir={scratch}/upper,workdir={scratch}/work"
    run("mount", "-t", "overlay", "overlay", "-o", layers, str(root))
    try:
        booted = Machine(root, scratch)
        try:
            yield booted
        finally:
            booted.halt()
    finally:
        run("umount", str(root))


def walk_of_the_readme():
    """The commands of the README's walk, as they stand there."""
    block = re.search(
        r"<!-- The walk.*?-->\n```sh\n(.*?)```", (TOP / "README.md").read_text(), re.DOTALL
    )
    return block[1]


@pytest.fixture(scope="session")
def walk(machine, pytestconfig):
    """What a stranger has after following the README: the walk's commands and what they print."""
    package = pathlib.Path(pytestconfig.getoption("--package"))
    folder = machine.path("/root/walk")
    folder.mkdir()
    shutil.copy(package, folder)
    script = f"cd /root/walk; set -ex\n{walk_of_the_readme()}"
    return machine.attempt("sh", "-c", script)


@pytest.fixture(scope="session")
def running(machine, walk):
    """The system after the walk, with a member of the group and a stranger on it."""
    if walk.returncode != 0:
        said = machine.attempt("journalctl", "--no-pager", "--lines=60", "--output=cat").stdout
        pytest.fail(f"{walk.stdout}\n{walk.stderr}\n{said}")
    machine.run("useradd", "--system", "--groups", "wxd", "member")
    machine.run("useradd", "--system", "stranger")

    def ready():
        names = machine.run("busctl", "list", "--no-legend")
        return all(
            name in names
            for name in (
                "com.norv.IOControl.State", "com.norv.WXD.Connector",
                "com.norv.IOSupervised.Supervised",
                "com.norv.Configuration.Legacy.IOControl1.IOPort",
            )
        )  # fmt: skip

    wait_until(ready, "the daemon's names", deadline=60)
    return machine
