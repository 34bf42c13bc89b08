"""The programs that race: how each publishes a tree, and how a device installs it and is brought from one version to the next.

Every program works by shell scripts, so that each is measured in the same way. A program has a directory of its own on the
publisher's side (`shop`), one that the server shows (`shelf`, under `url`), and one on the device (`device`); the installed
files end in `tree(device)`. What a program remembers on a device lies in `device` as well, so that a copy of that directory is
a copy of the device, but for inode numbers and times of change; a program that remembers those looks at its files anew in
`after_copy`.
"""

import shlex
from pathlib import Path


def quoted(*words):
    return " ".join(shlex.quote(str(word)) for word in words)


class Program:
    key = ""
    label = ""
    needs = ()  # Commands.
    packages = ()  # Debian packages that have them.

    def __init__(self, shop, shelf, url):
        self.shop, self.shelf, self.url = shop, shelf, url

    def start(self):
        """A script that makes what is there before the first version."""
        return ""

    def publish(self, number, tree):
        """A script that publishes the tree as version 1, 2, and so on."""
        raise NotImplementedError

    def install(self, device):
        """A script that installs the newest version on a device that has none."""
        raise NotImplementedError

    def update(self, device):
        """A script that brings a device to the newest version."""
        raise NotImplementedError

    def after_copy(self, device):
        """A script that is run on a copied device before its update, and not measured; empty for none."""
        return ""

    def tree(self, device):
        return device / "new"

    def updated_tree(self, device):
        """Where the files are after an update, when they are not in the place of the old ones."""
        return self.tree(device)

    def around(self, script, device):
        """The command that runs a measuring command on the device: as it is, or in a root directory of its own."""
        return script


class Ours(Program):
    key = "tolmdbud"
    label = "tolmdbud"
    needs = ("wget", "xdelta3", "unshare")
    packages = ("wget", "xdelta3", "util-linux")
    build = None  # Directory of the build, with bin/ and stage/.
    scratch = None
    database = "race"

    def start(self):
        return f"""
tolmdbpub keygen {quoted(self.shop / "keys")} --no-passphrase
tolmdbpub init {quoted(self.shop / "repo")} --base-url {quoted(self.url)} \\
  --key {quoted(self.shop / "keys/signing.key")} --cert {quoted(self.shop / "keys/signing.pem")}
rmdir {quoted(self.shelf)}
ln -s {quoted(self.shop / "repo/public", self.shelf)}
"""

    def publish(self, number, tree):
        return f"tolmdbpub release --allow-shrink {quoted(self.shop / 'repo')} {self.database} {quoted(tree)}"

    def install(self, device):
        return f"tolmdbud update {self.database} >/dev/null"

    def update(self, device):
        return f"tolmdbud update {self.database} >/dev/null"

    def after_copy(self, device):
        """To the record of installed files, every copied file was changed; what finds them whole brings the record up to date."""
        return f"tolmdbud fix {self.database} >/dev/null"

    def tree(self, device):
        return device / "volume1/@database/autoupdate" / self.database

    def private_root(self):
        return quoted(self.build / "bin/tolm-private-root", "--stage", self.build / "stage", "--volumes", 1,
                      "--bind", Path(__file__).resolve().parent, "--bind-rw", self.scratch)

    def around(self, script, device):
        inside = script
        if device is not None:
            volume, state = device / "volume1", device / "state"
            inside = f"""
set -eu
mkdir -p {quoted(volume, state)} /var/lib/data_update
mount --bind {quoted(volume)} /volume1
mount --bind {quoted(state)} /var/lib/data_update
tolmdbpub install-config {quoted(self.shop / "repo")} / >/dev/null
tolmdbud init >/dev/null
{script}
"""
        return f"{self.private_root()} -- {quoted('/bin/bash', '-c', inside)}"


class Ostree(Program):
    needs = ("ostree",)
    packages = ("ostree",)

    def start(self):
        return f"ostree init --repo={quoted(self.shelf)} --mode=archive"

    def commit(self, number, tree):
        return (f"ostree commit --repo={quoted(self.shelf)} --branch=race --subject={number} "
                f"--owner-uid=0 --owner-gid=0 --no-xattrs --tree=dir={quoted(tree)} >{quoted(self.shop)}/v{number}\n")

    def summary(self):
        return f"ostree summary --repo={quoted(self.shelf)} --update\n"

    def install(self, device):
        repo = quoted(device / "repo")
        return f"""
ostree init --repo={repo} --mode=bare-user-only
ostree remote add --repo={repo} --no-gpg-verify origin {quoted(self.url)}
ostree pull --repo={repo} --disable-static-deltas origin race >/dev/null
ostree checkout --repo={repo} --user-mode --require-hardlinks origin:race {quoted(device / "tree")}
"""

    def pull(self, device, option):
        repo = quoted(device / "repo")
        return f"""
ostree pull --repo={repo} {option} origin race >/dev/null
ostree checkout --repo={repo} --user-mode --require-hardlinks origin:race {quoted(device / "new")}
"""

    def tree(self, device):
        return device / "tree"

    def updated_tree(self, device):
        return device / "new"


class OstreeDeltas(Ostree):
    key = "ostree-deltas"
    label = "ostree, static deltas"

    def publish(self, number, tree):
        deltas = "".join(
            f'ostree static-delta generate --repo={quoted(self.shelf)} --from="$(cat {quoted(self.shop)}/v{old})" '
            f'--to="$(cat {quoted(self.shop)}/v{number})" >/dev/null\n' for old in range(1, number))
        return self.commit(number, tree) + deltas + self.summary()

    def update(self, device):
        return self.pull(device, "--require-static-deltas")


class OstreeFile(Ostree):
    key = "ostree-file"
    label = "ostree, delta file"
    needs = ("ostree", "wget")
    packages = ("ostree", "wget")

    def publish(self, number, tree):
        # Large objects stand in the file, too: nobody could be asked for them.
        deltas = "".join(
            f'ostree static-delta generate --repo={quoted(self.shelf)} --inline --min-fallback-size=0 '
            f'--from="$(cat {quoted(self.shop)}/v{old})" --to="$(cat {quoted(self.shop)}/v{number})" --filename={quoted(self.shelf)}/"$(cat {quoted(self.shop)}/v{old})" '
            ">/dev/null\n" for old in range(1, number))
        return self.commit(number, tree) + deltas + self.summary()

    def update(self, device):
        repo = quoted(device / "repo")
        return f"""
cd {quoted(device)}
wget -q -O newest {quoted(self.url + "/refs/heads/race")}
wget -q -O delta {quoted(self.url)}/"$(ostree rev-parse --repo={repo} origin:race)"
ostree static-delta apply-offline --repo={repo} "$PWD/delta"
ostree refs --repo={repo} --force --create=origin:race "$(cat newest)"
ostree checkout --repo={repo} --user-mode --require-hardlinks origin:race {quoted(device / "new")}
rm delta newest
"""


class OstreeObjects(Ostree):
    key = "ostree-objects"
    label = "ostree, objects"

    def publish(self, number, tree):
        return self.commit(number, tree) + self.summary()

    def update(self, device):
        return self.pull(device, "--disable-static-deltas")


class Casync(Program):
    key = "casync"
    label = "casync"
    needs = ("casync",)
    packages = ("casync",)
    METADATA = "--without=all --with=permissions --with=symlinks"

    def publish(self, number, tree):
        index = quoted(self.shelf / "newest.caidx")
        return f"casync make {self.METADATA} --store={quoted(self.shelf / 'store')} {index} {quoted(tree)} >/dev/null"

    def extract(self, options, to):
        return (f"casync extract --store={quoted(self.url + '/store')} {options} "
                f"{quoted(self.url + '/newest.caidx', to)} >/dev/null")

    def install(self, device):
        return self.extract("--seed-output=no", device / "tree")

    def update(self, device):
        return self.extract(f"--seed-output=no --seed={quoted(device / 'tree')}", device / "new")

    def tree(self, device):
        return device / "tree"

    def updated_tree(self, device):
        return device / "new"


class Tar(Program):
    @staticmethod
    def tar(tree):
        return f"tar --create --sort=name --owner=0 --group=0 --numeric-owner --directory={quoted(tree)} ."

    def tree(self, device):
        return device / "tree"

    def updated_tree(self, device):
        return device / "new"


class Zsync(Tar):
    key = "zsync"
    label = "zsync"
    needs = ("zsync", "zsyncmake")
    packages = ("zsync",)

    def publish(self, number, tree):
        return f"""
cd {quoted(self.shelf)}
{self.tar(tree)} >newest.tar
zsyncmake -z -u newest.tar.gz -U newest.tar -f newest.tar -o newest.zsync newest.tar 2>/dev/null
"""

    def fetch(self, device, options, to):
        return f"""
cd {quoted(device)}
zsync -q {options} -o new.tar {quoted(self.url + "/newest.zsync")} >zsync.log 2>&1 || {{ cat zsync.log >&2; exit 1; }}
mkdir {quoted(to)}
tar --extract --file=new.tar --directory={quoted(to)}
mv new.tar old.tar
"""

    def install(self, device):
        return self.fetch(device, "", device / "tree")

    def update(self, device):
        return self.fetch(device, "-i old.tar", device / "new")


class Full(Tar):
    key = "full"
    label = "full packages (tar.zst)"
    needs = ("zstd", "wget", "tar")
    packages = ("zstd", "wget", "tar")

    def publish(self, number, tree):
        return f"""
level=19
[ "$(du -sm {quoted(tree)} | cut -f1)" -le 100 ] || level=12  # Nobody waits a quarter of an hour for a gigabyte.
{self.tar(tree)} | zstd -$level -T0 -q -f -o {quoted(self.shelf / "newest.tar.zst")}
"""

    def fetch(self, device, to):
        return f"""
cd {quoted(device)}
wget -q -O new.tar.zst {quoted(self.url + "/newest.tar.zst")}
mkdir {quoted(to)}
zstd -q -d -c new.tar.zst | tar --extract --directory={quoted(to)}
rm new.tar.zst
"""

    def install(self, device):
        return self.fetch(device, device / "tree")

    def update(self, device):
        return self.fetch(device, device / "new")


ALL = (Ours, OstreeFile, OstreeDeltas, OstreeObjects, Casync, Zsync, Full)
