"""What must be true after a cut, and after the one run that follows it."""

import dataclasses
import json
import re


NAME = "things"
# All that may be there when everything has ended well. What is in the databases is compared by content.
KNOWN_FILES = [re.compile(pattern + r"\Z") for pattern in (
    r"/(state|volume[12])/lost\+found(/.*)?",
    r"/state/tolm-etc(/(keyring(/6\.pem)?|data_update(/(data_update|databases|operation)\.conf)?))?",
    r"/state/var(/(cache|lib))?",
    r"/state/var/cache/data_update(/database_info\.json)?",
    r"/state/var/lib/data_update(/(cooldown\.json|history\.jsonl|trust\.json))?",
    r"/state/var/lib/data_update/things(/((installed|verified|version)\.json|version\.json\.aside))?",
    r"/volume[12]/@tmp(/data_update)?",
    r"/volume[12]/@database(/autoupdate|/partial-downloads)?",
    r"/volume[12]/@database/autoupdate/things(/.*)?",
)]  # yapf: disable


def sections_of(text):
    """What the machine has said, by the name of the section."""
    sections = {}
    for part in re.split(r"^@section ", text, flags=re.MULTILINE)[1:]:
        name, _, rest = part.partition("\n")
        sections[name.strip()] = rest.strip()
    if "end" not in sections:
        raise ValueError("it broke off: " + text[-500:])
    return sections


def reason(said):
    """The last line with which a program of ours says why it failed."""
    lines = re.findall(r"^(tolmdb(?:ud|pub): .+?)\r?$", said, flags=re.MULTILINE)
    return lines[-1] if lines else ""


def last_words(said):
    """How an operation has ended for whoever reads what it says."""
    if "@done" not in said and reason(said):
        return reason(said)
    lines = [line.strip() for line in said.splitlines() if line.strip() and not line.startswith("@")]
    return lines[-1] if lines else ""


class Look:
    """What is installed on a device, and what is said of it."""

    def __init__(self, text):
        self.sections = sections_of(text)
        self.verified = self._first_database("verify")
        self.status = self._first_database("status")
        self.directory = self.status.get("directory") or ""

    def _first_database(self, section):
        try:
            databases = json.loads(self.sections[section])["databases"]
            return databases[0] if databases else {}
        except (ValueError, KeyError):
            return {"unreadable": self.sections[section]}

    def tree(self, volume):
        return self.sections[f"tree {volume}"].splitlines()

    def installed_tree(self):
        volume = self.directory.split("/@")[0]
        return self.tree(volume) if f"tree {volume}" in self.sections else ["absent"]

    def files(self):
        for line in self.sections["files"].splitlines():
            kind, _, size, path = line.split(" ", 3)
            yield kind, int(size), path

    def in_words(self):
        """The state in a few words, for the table of tries."""
        return f"{self.verified.get('installed')} {self.verified.get('state')}"


@dataclasses.dataclass(frozen=True)
class DevicePhase:
    """What is cut on a device.

    served: the tree of the server from then on; right: the version that is right in the end; road:
    what an undisturbed run says, so that it is known to be what its name says; waits: most of the
    time it does nothing; made: the version that it installs itself, where that is not the right one.
    """
    name: str
    served: str
    right: int
    road: str
    waits: bool = False
    made: int = 0

    def prepare(self):
        return f"prepare {self.name}"

    def start(self, file_system):
        return f"start_disks {file_system}"

    def stop(self):
        return "stop_disks"

    def serve(self):
        return f"start_server; serve {self.served}; tolmdbud init"

    def look(self):
        return "look"

    def recover(self, how):
        return f"recover {how}"

    def read(self, text):
        return Look(text)

    def claims(self, look, expected, said):
        """What is wrong with what is said after the cut, before anything was run.

        expected: the lines of a version's tree by version. said: what the operation had said until
        the cut.
        """
        wrong = []
        installed, state = look.verified.get("installed"), look.verified.get("state")
        if "unreadable" in look.verified or "unreadable" in look.status:
            wrong.append("verify or status gave no answer: " + look.sections["verify"][-300:] + look.sections["status"][-300:])
        elif state == "intact":
            missing, more = differences(look.installed_tree(), expected.get(str(installed), ["no such version"]))
            # A forced installation puts files over others, and removes none.
            if missing or (more and self.name != "force"):
                wrong.append(f"said to be intact as {installed}: {_few(missing)} is missing, {_few(more)} is too much")
        elif state == "damaged" and not look.verified.get("cut_short") and self.name != "fix":
            wrong.append(f"damaged without a mark: {look.verified}")
        return wrong + self._kept_word(look, said)

    def _kept_word(self, look, said):
        """What was said to be done is done after the cut, too."""
        if self.name == "signed":
            accepted = [int(number) for number in re.findall(r"accepted: \S+ : (\d+)\n", said)]
            now = [int(number) for number in re.findall(r"\d+", look.sections["trust"])]
            if accepted and (not now or now[0] < accepted[-1]):
                return [f"description {accepted[-1]} was accepted, and now the newest is {now}"]
        elif self.name == "settings":
            if len(re.findall(r"written: (on|off)\n", said)) == 4 and look.status.get("scheduled") is not True:
                return ["the last setting was lost"]
        elif self.name == "move":
            is_there = look.directory.startswith("/volume2/") and look.verified.get("state") == "intact"
            if "moved\n" in said and not is_there:
                return [f"was moved, and now {look.directory} is {look.verified}"]
        elif "@done" in said and look.verified.get("installed") != (self.made or self.right):
            return [f"was done, and now {look.verified.get('installed')} is installed"]
        return []

    def outcome(self, look, expected):
        """What is wrong after the one run."""
        wrong = []
        missing, more = differences(look.installed_tree(), expected[str(self.right)])
        if missing or more:
            wrong.append(f"not {self.right}: {_few(missing)} is missing, {_few(more)} is too much in {look.directory}")
        if (look.verified.get("installed"), look.verified.get("state")) != (self.right, "intact"):
            wrong.append(f"verify says {look.verified}")
        if look.status.get("state") != "up-to-date":
            wrong.append(f"status says {look.status.get('state')}")
        volumes = {path.split("/")[1] for _, _, path in look.files() if path.endswith("@database/autoupdate/" + NAME)}
        if len(volumes) != 1:
            wrong.append(f"databases on {sorted(volumes)}")
        return wrong + [f"left over: {path}" for _, _, path in look.files()
                        if not any(known.match(path) for known in KNOWN_FILES)]  # yapf: disable


class PublisherLook:
    """What a device gets from the publisher, and what is in the repository."""

    def __init__(self, text):
        self.sections = sections_of(text)

    def version(self, expected):
        """The release whose files the device has, and no other ones; None when there is none."""
        tree = self.sections["tree"].splitlines()
        return next((name for name, lines in expected.items() if name.startswith("small-") and lines == tree), None)

    def in_words(self):
        return f"update {self.sections['update-status']} check {self.sections['check-status']}"


@dataclasses.dataclass(frozen=True)
class PublisherPhase:
    """What is cut on the publisher's machine.

    place: where a device asks; right: what it has in the end.
    """
    name: str
    place: str
    right: str
    road: str
    waits: bool = False

    def prepare(self):
        return f"prepare_publisher {self.name}"

    def start(self, file_system):
        return f"start_publisher {file_system}"

    def stop(self):
        return "stop_publisher"

    def serve(self):
        return "true"

    def look(self):
        return f"look_at_publisher {self.place}"

    def recover(self, _):
        """Whatever was cut, the same command completes it."""
        return f"operate_{self.name}"

    def read(self, text):
        return PublisherLook(text)

    def claims(self, look, expected, _):
        """A device never gets anything but a release, whatever the publisher's machine goes through."""
        version = look.version(expected)
        if look.sections["update-status"] != "0" or version not in ("small-2", "small-3"):
            return [f"a device gets {version}: {look.sections['update']} {look.sections['tree'][:300]}"]
        return []

    def outcome(self, look, expected):
        wrong = []
        if look.sections["update-status"] != "0" or look.version(expected) != self.right:
            wrong.append(f"a device gets {look.version(expected)}: {look.sections['update']}")
        if look.sections["check-status"] != "0":
            wrong.append(f"check says {look.sections['check']}")
        return wrong + [f"left over: {line}" for line in look.sections["files"].splitlines()
                        if re.search(r"\.(new|tmp|partial|staging)$|[/]work[/].", line)]  # yapf: disable


def differences(found, expected):
    """Lines that are missing, and lines that are too many."""
    return ([line for line in expected if line not in found], [line for line in found if line not in expected])


def _few(lines):
    return "nothing" if not lines else "; ".join(lines[:3]) + (f" and {len(lines) - 3} more" if len(lines) > 3 else "")


PUBLIC = "/volume1/repo/public"
DEVICE_PHASES = ["first", "vcdiff", "sql", "chain", "full", "fix", "force", "move", "settings", "signed", "partial"]
PUBLISHER_PHASES = ["release", "prune", "resign", "refresh", "push"]
PHASES = {phase.name: phase for phase in (
    DevicePhase("first", "1000001", 1000001, r"things_v1000001[\s\S]*updated to 1000001"),
    DevicePhase("vcdiff", "1000002", 1000002, r"things_d1000002[\s\S]*patched _blob_bin[\s\S]*updated to 1000002"),
    DevicePhase("sql", "1000003", 1000003, r"next delta 1000003[\s\S]*updated to 1000003"),
    DevicePhase("chain", "1000003", 1000003, r"things_d1000002[\s\S]*things_d1000003[\s\S]*updated to 1000003"),
    DevicePhase("full", "1000004", 1000004, r"things_v1000004[\s\S]*updated to 1000004"),
    DevicePhase("fix", "1000002", 1000002, r"repaired with 1000002"),
    DevicePhase("force", "1000002", 1000002, r"1000001", made=1000001),
    DevicePhase("move", "1000002", 1000002, r"moved", True),
    DevicePhase("settings", "1000002", 1000002, r"(written: off\s[\s\S]*written: on\s[\s\S]*){2}"),
    DevicePhase("signed", "signed-6", 1000004, r"(accepted: \S+ : \d+\s[\s\S]*){6}"),
    DevicePhase("partial", "1000004", 1000004, r"things_v1000004[\s\S]*updated to 1000004", True),
    DevicePhase("unreadable", "1000002", 1000002, r""),
    PublisherPhase("release", PUBLIC, "small-3", r"1000003 is released"),
    PublisherPhase("prune", PUBLIC, "small-2", r""),
    PublisherPhase("resign", PUBLIC, "small-2", r"signed"),
    PublisherPhase("refresh", PUBLIC, "small-2", r"signed 1 database"),
    PublisherPhase("push", "/volume2/store", "small-3", r""),
)}  # yapf: disable
