"""The mount namespace in which the daemon finds its fixed paths.

The daemon has its paths compiled in and no option to move them. So the sandbox gives it a file
system of its own, built by bubblewrap: the host's /usr (read-only, without /usr/share), and /etc,
/tmp, /run, /sys and /usr/share/wexd from a scratch folder that mirrors them. `path` translates.
What lies in the scratch folder's /dev when a program starts is added to a minimal /dev.
Nothing outside the scratch folder can be written.

Run by root, the daemon is root inside with every capability, exactly as an init would start it, so
that its change to the unprivileged user is the real one. Run by an ordinary user it keeps that
user's identity, and the change fails as it does for any ordinary user.
"""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess

# Three different numbers, unlikely on any host, so that a mix-up of user and group shows.
WXD_UID = 61711
WXD_GID = 61712
HELPERS_GID = 61713  # a supplementary group of the user

BUS_SOCKET = "/run/dbus/system_bus_socket"
PROGRAMS = "/app"  # where programs of this build are put
BINARY = f"{PROGRAMS}/wexd"

# The folders that the daemon writes to after it has changed its user.
WRITABLE = (
    "/etc/wexd",
    "/etc/wexd/actions",
    "/etc/wexd.d",
    "/etc/service_registry/services.d",
    "/etc/legacyconfig/legacymappings.d",
)


class Sandbox:
    """A scratch folder laid out as the device's file system, and the way into it.

    user: numeric id of an ordinary user to run as; None keeps the caller's identity. Only root can
    choose one. without_capabilities: names such as "setgid" that root is to lack inside.
    inheritable: capabilities that root is to pass on to every program, as a careless starter might.
    """

    def __init__(self, root, user=None, without_capabilities=(), inheritable=()):
        self.root = pathlib.Path(root)
        self.user = user
        self.without_capabilities = tuple(without_capabilities)
        self.inheritable = tuple(inheritable)
        for folder in ("/tmp", "/run/dbus", "/sys", "/usr/share/wexd", *WRITABLE):
            self.path(folder).mkdir(parents=True, exist_ok=True)
        self.path("/tmp").chmod(0o1777)
        self.path("/etc/nsswitch.conf").write_text("passwd: files\ngroup: files\n")
        self.path("/etc/machine-id").write_text("0123456789abcdef0123456789abcdef\n")
        self.set_accounts()

    def path(self, inside):
        """Where a path of the device lies on the host."""
        return self.root / str(inside).lstrip("/")

    def set_accounts(self, user=True, group=True, gid=WXD_GID):
        """Writes the device's accounts, with or without the daemon's own user and group."""
        passwd = ["root:x:0:0:root:/:/bin/sh"]
        for uid in {os.getuid(), self.user or 0} - {0}:
            passwd.append(f"user{uid}:x:{uid}:{uid}::/:/bin/sh")
        groups = ["root:x:0:", f"helpers:x:{HELPERS_GID}:wxd"]
        if user:
            passwd.append(f"wxd:x:{WXD_UID}:{gid}::/:/usr/sbin/nologin")
        if group:
            groups.append(f"wxd:x:{gid}:")
        self.path("/etc/passwd").write_text("\n".join(passwd) + "\n")
        self.path("/etc/group").write_text("\n".join(groups) + "\n")

    def hand_over(self):
        """Gives the daemon's folders the owner that they have on a device (root only)."""
        if os.getuid() != 0:
            return
        if self.user is not None:
            for folder, _, files in os.walk(self.root):
                for entry in (folder, *(os.path.join(folder, file) for file in files)):
                    os.lchown(entry, self.user, self.user)
            return
        for folder in filter(os.path.isdir, map(self.path, WRITABLE)):
            os.chown(folder, WXD_UID, WXD_GID)

    def command(self, argv, binary, info_fd=None, beside=()):
        """The command line that runs argv inside, where the binary is to be found as BINARY.

        bubblewrap writes the process id of the sandbox's first process to info_fd. Programs that
        are to lie beside the binary keep their names.
        """
        programs = {BINARY: binary, **{f"{PROGRAMS}/{other.name}": other for other in beside}}
        binds = (
            ("--ro-bind", str(self._reachable(program)), inside) for inside, program in programs.items()
        )
        bwrap = self._bwrap([word for bind in binds for word in bind])
        if info_fd is not None:
            bwrap += ["--info-fd", str(info_fd)]
        if self.user is not None:
            user = str(self.user)
            become = ["setpriv", "--reuid", user, "--regid", user, "--clear-groups"]
            return [*become, *bwrap, "--", *argv]
        if os.getuid() != 0:
            return [*bwrap, "--", *argv]
        # bubblewrap drops root's capabilities unless told, and may pass them on as inheritable; a
        # freshly booted root has them all and none to inherit. Root gets on exec what its bounding
        # set holds, so that is the place to take some away.
        bounds = [f"--bounding-set=-{name}" for name in self.without_capabilities]
        inherited = "--inh-caps=" + ",".join(["-all", *(f"+{name}" for name in self.inheritable)])
        plain_root = ["setpriv", "--ambient-caps=-all", inherited, *bounds]
        return [*bwrap, "--cap-add", "ALL", "--", *plain_root, *argv]

    def _reachable(self, program):
        """The program, or a copy of it: the user may not get into the folder where it was built."""
        if self.user is None:
            return program
        copy = self.path(f"{PROGRAMS}/{program.name}")
        copy.parent.mkdir(exist_ok=True)
        shutil.copy2(program, copy)
        return copy

    def bus_command(self, argv):
        """The command line that runs a message bus inside, as the caller.

        The bus turns clients away whose user it cannot look up, so it needs the same accounts.
        """
        return [*self._bwrap(), "--", *argv]

    def _bwrap(self, more=()):
        return [
            "bwrap", "--unshare-pid", "--die-with-parent",
            "--ro-bind", "/usr", "/usr",
            "--tmpfs", "/usr/share",
            "--bind", str(self.path("/usr/share/wexd")), "/usr/share/wexd",
            "--symlink", "usr/bin", "/bin",
            "--symlink", "usr/sbin", "/sbin",
            "--symlink", "usr/lib", "/lib",
            "--symlink", "usr/lib64", "/lib64",
            "--perms", "0755", "--dir", "/app",
            "--perms", "0755", "--dir", "/var",
            "--symlink", "/run", "/var/run",
            "--proc", "/proc",
            "--dev", "/dev",
            "--symlink", "/run/log", "/dev/log",
            "--bind", str(self.path("/etc")), "/etc",
            "--bind", str(self.path("/tmp")), "/tmp",
            "--bind", str(self.path("/run")), "/run",
            "--bind", str(self.path("/sys")), "/sys",
            *self._nodes(),
            *self._counts(),
            *more,
            "--chdir", "/",
        ]  # fmt: skip

    def _counts(self):
        """Where programs that count which of their lines run leave the counts: where they were built."""
        if folder := os.environ.get("WEXD_COUNTS"):
            for parent in reversed(pathlib.Path(folder).parents):
                yield from ("--perms", "0755", "--dir", str(parent))
            yield from ("--bind", folder, folder)

    def _nodes(self):
        for node in sorted(self.path("/dev").glob("*")):
            yield from ("--bind", str(node), f"/dev/{node.name}")


def end(process):
    """Ends what was started in a sandbox, and waits for it.

    The sandbox's own first process goes first: it follows the one outside by itself, but not if that
    goes before it has asked the kernel to be told.
    """
    for pid in children_of(process.pid):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    process.kill()
    process.wait()


def child_of(pid):
    """The process id of the only child of a process; None while there is none (or no parent)."""
    children = children_of(pid)
    return children[0] if children else None


def children_of(pid):
    try:
        return [*map(int, pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split())]
    except OSError:
        return []


def usable():
    """Whether this host lets the caller build the sandbox; the reason if not."""
    probe = subprocess.run(
        ["bwrap", "--unshare-pid", "--ro-bind", "/", "/", "--proc", "/proc", "--dev", "/dev", "true"],
        capture_output=True,
        text=True,
        check=False,
    )
    return probe.returncode == 0, probe.stderr.strip()
