"""What `scripts/image` makes and starts, with small stand-ins for Debian, its programs and the emulator."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest
from conftest import ROOT

NOBODY = 65534
ESP, LINUX = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "0FC63DAF-8483-4772-8E79-3D69D8477DE4"
PACKAGES = ["device", "doctor", "network", "network-sim", "network-tools", "settingsd", "supplicant-names"]

STAND_INS = {
    "dpkg": 'cat "$TREE/architecture"',
    "mmdebstrap": """
echo "mmdebstrap $*" >>"$TREE/called"
for argument in "$@"; do case "$argument" in *.tar) tar -cf "$argument" -C "$TREE/debian" . ;; esac; done""",
    # Called as `unshare OPTION... sh -ec SCRIPT sh ROOT COMMAND...`: what a command would do in the new system.
    "unshare": """
shift 10
root="$1"
shift
echo "in the system: $*" >>"$TREE/called"
case "$*" in
*apt-get*) ls "$root/packages" >"$TREE/installed"; [ -x "$root/usr/sbin/policy-rc.d" ] ;;
grub-mkimage*) cp "$root/tmp/grub.cfg" "$root/tmp/loader" ;;
*lsinitramfs*) [ ! -e "$TREE/incomplete" ] ;;
esac""",
    **{f"qemu-system-{name}": 'echo "${0##*/} $*" >"$TREE/started"; exit 7' for name in ("x86_64", "aarch64", "arm")},
}

DEBIAN = {
    "boot/vmlinuz-6": "kernel 6",
    "boot/initrd.img-6": "initrd 6",
    "etc/apt/apt.conf.d/99mmdebstrap": "Acquire::http::Proxy",
    "etc/apt/sources.list.d/0000debian.list": "deb http://mirror.example bookworm main",
    "etc/apt/sources.list": "",
    "etc/hostname": "the-builder",
    "etc/machine-id": "0123456789abcdef0123456789abcdef",
    "etc/resolv.conf": "nameserver 192.0.2.1",
    "etc/shadow": "root:*:19000:0:99999:7:::\ndaemon:*:19000:0:99999:7:::\n",
    "tmp/.keep": "",
    "usr/sbin/.keep": "",
    "var/lib/apt/lists/mirror": "",
    "var/lib/dbus/machine-id": "0123456789abcdef0123456789abcdef",
    "var/log/dpkg.log": "",
}


class Tree:
    """A source tree with the script, packages that are built already, and a Debian of a few files."""

    def __init__(self, root: Path) -> None:
        self.root = root
        (root / "scripts").mkdir(parents=True)
        for name in ("image", "built-packages.sh", "debian-root.sh"):
            shutil.copy(ROOT / "scripts" / name, root / "scripts")
            # The tree may be its owner's alone.
            (root / "scripts" / name).chmod(0o755)
        common = (ROOT / "scripts/common.sh").read_text()
        own = common.replace("export PATH=", f'export PATH="{root}/bin":')
        assert own != common
        (root / "scripts/common.sh").write_text(own)
        (root / "scripts/debian-mirror.sh").write_text(
            "debian_suite() { echo bookworm; }\ndebian_sources() { echo deb; }\ndebian_apt_options() { :; }\n"
        )
        for name in ("install-packages", "package"):
            self._write(root / "scripts" / name, f'echo "{name} $*" >>"$TREE/called"')
        for name, text in STAND_INS.items():
            self.program(name, text)
        for name, text in DEBIAN.items():
            (root / "debian" / name).parent.mkdir(parents=True, exist_ok=True)
            (root / "debian" / name).write_text(text)
        (root / "debian/vmlinuz").symlink_to("boot/vmlinuz-6")
        (root / "debian/initrd.img").symlink_to("boot/initrd.img-6")
        self.use("amd64")

    def program(self, name: str, text: str) -> None:
        """A program that the script finds before this machine's."""
        self._write(self.root / "bin" / name, text)

    @staticmethod
    def _write(path: Path, text: str) -> None:
        path.parent.mkdir(exist_ok=True)
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def use(self, architecture: str) -> None:
        """This machine is of that architecture, and has packages for it."""
        (self.root / "architecture").write_text(f"{architecture}\n")
        folder = self.root / "build/packages" / architecture
        folder.mkdir(parents=True, exist_ok=True)
        for name in PACKAGES:
            (folder / f"vantora-{name}_1.0.0_{architecture}.deb").write_text(name)

    def image(self, *arguments: str, as_root: bool = True) -> subprocess.CompletedProcess[str]:
        """Runs the script, as root or as somebody who is root in a world of his own."""
        command: list[str | Path] = [self.root / "scripts/image", *arguments]
        nobody: dict[str, int] = {}
        if as_root and os.geteuid() != 0:
            command = ["/usr/bin/unshare", "--user", "--map-root-user", *command]
        elif not as_root and os.geteuid() == 0:
            nobody = {"user": NOBODY, "group": NOBODY}
        return subprocess.run(
            command,
            env={"TREE": str(self.root), "HOME": str(self.root / "home")},
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
            **nobody,  # type: ignore[arg-type]
        )

    def called(self) -> list[str]:
        path = self.root / "called"
        return path.read_text().splitlines() if path.exists() else []


class Disk:
    """What is on a disk that was made."""

    def __init__(self, path: Path) -> None:
        self.path = path
        table = subprocess.run(["/usr/sbin/sfdisk", "--json", path], check=True, capture_output=True, text=True, timeout=60)
        self.partitions = json.loads(table.stdout)["partitiontable"]["partitions"]

    def loader(self, name: str) -> str:
        """A program for firmware."""
        return subprocess.run(
            ["mtype", "-i", f"{self.path}@@1M", f"::/EFI/BOOT/{name}"], check=True, capture_output=True, text=True, timeout=60
        ).stdout

    def system(self, request: str) -> str:
        """An answer of debugfs about the system on it."""
        offset = self.partitions[1]["start"] * 512
        return subprocess.run(
            ["/usr/sbin/debugfs", "-R", request, f"{self.path}?offset={offset}"],
            check=True,
            capture_output=True,
            text=True,
            timeout=60,
        ).stdout


@pytest.fixture
def tree(tmp_path: Path) -> Tree:
    # Others may pass through: in some tests an ordinary user starts the script.
    for folder in (tmp_path, *tmp_path.parents):
        if folder == Path(tempfile.gettempdir()):
            break
        folder.chmod(0o755)
    return Tree(tmp_path / "tree")


@pytest.mark.parametrize(
    ("arguments", "complaint"),
    [
        (["--suite", "11"], "no image for --suite '11' (try --help)"),
        (["--suite", "bookworm"], "no image for --suite 'bookworm' (try --help)"),
        (["--arch", "mips"], "no image for --arch 'mips' (try --help)"),
        (["--arch"], "--arch of what? (try --help)"),
        (["--start"], "unknown argument '--start' (try --help)"),
    ],
)
def test_what_is_no_image_is_refused(tree: Tree, arguments: list[str], complaint: str) -> None:
    ran = tree.image(*arguments)
    assert (ran.returncode, ran.stdout, ran.stderr) == (2, "", f"image: {complaint}\n")
    assert tree.called() == []


def test_help_names_every_option(tree: Tree) -> None:
    ran = tree.image("--help")
    assert ran.returncode == 0
    for option in ("--suite 12|13", "--arch amd64|arm64|armhf", "--boot", "--force"):
        assert option in ran.stdout


def test_an_ordinary_user_makes_no_image_and_nothing_is_touched(tree: Tree) -> None:
    ran = tree.image(as_root=False)
    assert (ran.returncode, ran.stderr) == (1, "image: the image is made as root: run this as root\n")
    assert tree.called() == []


@pytest.mark.parametrize(
    ("architecture", "options", "kernel", "loader", "platform", "serial"),
    [
        ("amd64", [], "linux-image-amd64", "BOOTX64.EFI", "x86_64-efi", "ttyS0"),
        ("arm64", ["--suite", "13"], "linux-image-arm64", "BOOTAA64.EFI", "arm64-efi", "ttyAMA0"),
        ("armhf", ["--arch", "armhf"], "linux-image-armmp-lpae", "BOOTARM.EFI", "arm-efi", "ttyAMA0"),
    ],
)
def test_the_disk_starts_a_debian_with_our_packages(
    tree: Tree, architecture: str, options: list[str], kernel: str, loader: str, platform: str, serial: str
) -> None:
    tree.use(architecture)
    ran = tree.image(*options)
    suite, number = ("trixie", 13) if "13" in options else ("bookworm", 12)
    folder = tree.root / f"build/image/debian-{number}-{architecture}"
    assert ran.returncode == 0, ran.stderr
    assert ran.stdout.splitlines()[-1] == f"build/image/debian-{number}-{architecture}"
    assert sorted(path.name for path in folder.iterdir()) == ["disk.img", "initrd", "kernel", "made-of"]
    assert (folder / "kernel").read_text() == "kernel 6" and (folder / "initrd").read_text() == "initrd 6"

    called = tree.called()
    assert called[:2] == ["install-packages --package --image", f"package {architecture}"]
    (made,) = [line for line in called if line.startswith("mmdebstrap ")]
    assert f"--architectures={architecture} " in made and "--variant=important " in made and f" {suite} " in made
    assert f"--include={kernel}," in made and "vantora" not in made.split("--include=")[1].split()[0]
    # apt is given all but the simulated device.
    assert any("apt-get -q -y install /packages/*.deb" in line for line in called)
    installed = set((tree.root / "installed").read_text().split())
    assert installed == {f"vantora-{name}_1.0.0_{architecture}.deb" for name in PACKAGES if name != "network-sim"}

    disk = Disk(folder / "disk.img")
    assert [part["type"] for part in disk.partitions] == [ESP, LINUX]
    assert [part["start"] for part in disk.partitions] == [2048, 2048 + 16 * 2048]
    assert any(f"grub-mkimage --format={platform} " in line for line in called)
    started = disk.loader(loader)
    assert "search --no-floppy --label vantora-root --set=root\n" in started
    words = f"root=LABEL=vantora-root ro net.ifnames=0 console=tty0 console={serial}"
    assert f"linux /vmlinuz {words}\ninitrd /initrd.img\n" in started


@pytest.mark.parametrize(("machine", "of"), [("amd64", "armhf"), ("amd64", "arm64"), ("armhf", "armhf"), ("amd64", "amd64")])
def test_emulated_programs_of_32_bits_find_the_drivers_in_memory(tree: Tree, machine: str, of: str) -> None:
    tree.use(of)
    tree.use(machine)
    assert tree.image("--arch", of).returncode == 0
    (installing,) = [line for line in tree.called() if "apt-get -q -y install" in line]
    assert ("mount -t tmpfs modules" in installing) == ((machine, of) == ("amd64", "armhf"))


def test_the_initrd_is_made_once_and_of_everything_that_is_installed(tree: Tree) -> None:
    """Emulated, it takes minutes each time."""
    assert tree.image().returncode == 0
    called = "\n".join(tree.called())
    steps = [
        "mmdebstrap ",
        '--essential-hook=chroot "$1" sh -ec \'dpkg-divert --quiet --local --rename --add /usr/sbin/update-initramfs;',
        "apt-get -q -y install /packages/*.deb;",
        "dpkg-divert --quiet --local --rename --remove /usr/sbin/update-initramfs",
        "update-initramfs -c -k ",
        'lsinitramfs "$(readlink -f /initrd.img)"',  # what reads it takes no link for a file
    ]
    places = [called.find(step) for step in steps]
    assert -1 not in places and places == sorted(places), called
    assert called.count("update-initramfs -") == 1


def test_an_initrd_without_drivers_of_disks_is_no_image(tree: Tree) -> None:
    (tree.root / "incomplete").touch()
    ran = tree.image()
    assert ran.returncode == 1
    assert ran.stderr.endswith("image: the initrd has no drivers of disks\n")
    assert not (tree.root / "build/image/debian-12-amd64").exists()


def test_nothing_on_the_disk_tells_of_the_machine_that_made_it(tree: Tree) -> None:
    assert tree.image().returncode == 0
    disk = Disk(tree.root / "build/image/debian-12-amd64/disk.img")
    assert "Filesystem volume name:   vantora-root\n" in disk.system("stats")
    for path, text in {
        "/etc/hostname": "debian\n",
        "/etc/machine-id": "",
        "/etc/resolv.conf": "",
        "/etc/fstab": "LABEL=vantora-root / ext4 errors=remount-ro 0 1\n",
        "/etc/shadow": "root::19000:0:99999:7:::\ndaemon:*:19000:0:99999:7:::\n",
        "/etc/apt/sources.list": "deb http://deb.debian.org/debian bookworm main\n"
        "deb http://deb.debian.org/debian bookworm-updates main\n"
        "deb http://security.debian.org/debian-security bookworm-security main\n",
    }.items():
        assert disk.system(f"cat {path}") == text, path
    for folder in (
        "/",
        "/usr/sbin",
        "/tmp",
        "/etc/apt/apt.conf.d",
        "/etc/apt/sources.list.d",
        "/var/lib/apt/lists",
        "/var/log",
    ):
        # Lines of `ls -p`: /inode/mode/user/group/name/size/.
        names = {line.split("/")[5] for line in disk.system(f"ls -p {folder}").splitlines() if line.count("/") > 5}
        assert names <= {".", "..", ".keep", "boot", "etc", "initrd.img", "lost+found", "tmp", "usr", "var", "vmlinuz"}, folder


def test_an_image_is_made_anew_when_a_package_changes_and_not_before(tree: Tree) -> None:
    assert tree.image().returncode == 0
    once = len(tree.called())
    again = tree.image()
    assert "-- debian-12-amd64: the image is there\n" in again.stdout
    assert tree.called()[once:] == ["install-packages --package --image", "package amd64"]
    next(tree.root.glob("build/packages/amd64/vantora-device_*.deb")).write_text("changed")
    assert tree.image().returncode == 0
    later = tree.called()[once + 2 :]
    assert any("apt-get" in line for line in later)
    assert not any(line.startswith("mmdebstrap") for line in later), "Debian itself has not changed"


def test_packages_that_are_replaced_meanwhile_change_nothing(tree: Tree) -> None:
    tree.program("mmdebstrap", 'rm -r "$TREE/build/packages"' + STAND_INS["mmdebstrap"])
    ran = tree.image()
    assert ran.returncode == 0, ran.stderr
    assert "vantora-device_1.0.0_amd64.deb" in (tree.root / "installed").read_text()


@pytest.mark.parametrize("there", [False, True])
def test_nothing_is_left_behind_also_where_the_emulator_takes_over(tree: Tree, there: bool) -> None:
    if there:
        assert tree.image().returncode == 0
    assert tree.image("--boot").returncode == 7
    assert [path.name for path in (tree.root / "build/image").iterdir()] == ["debian-12-amd64"]


@pytest.mark.parametrize(
    ("architecture", "emulator", "serial"),
    [
        ("amd64", "qemu-system-x86_64 -M q35 ", "ttyS0"),
        ("arm64", "qemu-system-aarch64 -M virt -cpu cortex-a57 ", "ttyAMA0"),
        ("armhf", "qemu-system-arm -M virt -cpu cortex-a15 ", "ttyAMA0"),
    ],
)
def test_an_ordinary_user_starts_it_with_simulated_radios_and_this_terminal(
    tree: Tree, architecture: str, emulator: str, serial: str
) -> None:
    folder = tree.root / f"build/image/debian-12-{architecture}"
    folder.mkdir(parents=True)
    (folder / "disk.img").write_text("disk")
    # Another machine than that, so that no accelerator is asked for.
    tree.use("amd64" if architecture != "amd64" else "arm64")
    if os.geteuid() == 0:
        # Where the emulator's stand-in writes.
        shutil.chown(tree.root, NOBODY, NOBODY)
    ran = tree.image("--boot", "--arch", architecture, as_root=False)
    assert ran.returncode == 7, ran.stderr
    started = (tree.root / "started").read_text()
    assert started.startswith(emulator)
    assert f"-kernel {folder}/kernel -initrd {folder}/initrd " in started
    assert f"console={serial} " in started
    assert " modules_load=mac80211_hwsim mac80211_hwsim.radios=2 " in started
    assert f"file={folder}/disk.img,format=raw,snapshot=on " in started, "the image stays as it was made"
    assert " -serial mon:stdio " in started
    assert " -icount shift=1,sleep=on " in started, "a busy computer makes nothing in it late"
    assert tree.called() == []


@pytest.mark.parametrize(("arguments", "may_lend"), [([], True), (["--emulate"], False)])
def test_a_processor_is_lent_where_there_is_one_unless_it_is_to_be_emulated(
    tree: Tree, arguments: list[str], may_lend: bool
) -> None:
    assert tree.image().returncode == 0
    tree.image("--boot", *arguments)
    started = (tree.root / "started").read_text()
    lends = may_lend and os.access("/dev/kvm", os.W_OK)
    assert (" -enable-kvm -cpu host " in started, " -icount " in started) == (lends, not lends)
