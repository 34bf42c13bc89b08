"""What must be true after a cut, and after the one run that follows it."""

import dataclasses
import json
import re


@dataclasses.dataclass(frozen=True)
class Phase:
    """What is cut.

    served: the tree of the server from then on; right: the version that is right in the end; road:
    what an undisturbed run says, so that it is known to be what its name says.
    """
    served: str
    right: int
    road: str
    volume: str = "/volume1"


PHASES = {
    "first": Phase("1000001", 1000001, r"things_v1000001[\s\S]*updated to 1000001"),
    "vcdiff": Phase("1000002", 1000002, r"things_d1000002[\s\S]*patched _blob_bin[\s\S]*updated to 1000002"),
    "sql": Phase("1000003", 1000003, r"things_d1000003[\s\S]*table_db[\s\S]*updated to 1000003"),
    "chain": Phase("1000003", 1000003, r"things_d1000002[\s\S]*things_d1000003[\s\S]*updated to 1000003"),
    "full": Phase("1000004", 1000004, r"things_v1000004[\s\S]*updated to 1000004"),
    "fix": Phase("1000002", 1000002, r"repaired with 1000002"),
    "force": Phase("1000002", 1000002, r"1000001"),
    "move": Phase("1000002", 1000002, r"", "/volume2"),
    "settings": Phase("1000002", 1000002, r"written: off\s[\s\S]*written: on\s[\s\S]*written: off\s[\s\S]*written: on\s"),
    "signed": Phase("signed-6", 1000001, r"(accepted: \S+ : \d+[\s\S]*){6}"),
    "partial": Phase("1000004", 1000004, r"things_v1000004[\s\S]*updated to 1000004"),
}  # yapf: disable

NAME = "things"
# All that may be there when everything has ended well. What is in the databases is compared by content.
KNOWN_FILES = [re.compile(pattern + r"\Z") for pattern in (
    r"/(state|volume[12])/lost\+found(/.*)?",
    r"/state/tolm-etc(/(keyring(/6\.pem)?|data_update(/(data_update|databases|operation)\.conf)?))?",
    r"/state/var(/(cache|lib))?",
    r"/state/var/cache/data_update(/database_info\.json)?",
    r"/state/var/lib/data_update(/(cooldown\.json|history\.jsonl|trust\.json))?",
    r"/state/var/lib/data_update/things(/(installed|verified|version)\.json)?",
    r"/volume[12]/@tmp(/data_update)?",
    r"/volume[12]/@database(/autoupdate|/partial-downloads)?",
    r"/volume[12]/@database/autoupdate/things(/.*)?",
)]  # yapf: disable


class Look:
    """What the machine has said to "look"."""

    def __init__(self, text):
        self.sections = {}
        for part in re.split(r"^@section ", text, flags=re.MULTILINE)[1:]:
            name, _, rest = part.partition("\n")
            self.sections[name.strip()] = rest.strip()
        if "end" not in self.sections:
            raise ValueError("it broke off: " + text[-500:])
        self.directory = self.sections["directory"]
        self.verified = self._first_database("verify")
        self.status = self._first_database("status")

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


def differences(found, expected):
    """Lines that are missing, and lines that are too many."""
    return ([line for line in expected if line not in found], [line for line in found if line not in expected])


def claims(phase_name, look, expected, said):
    """What is wrong with what is said after the cut, before anything was run.

    expected: the lines of a version's tree by version. said: what the operation had said until the
    cut.
    """
    wrong = []
    installed, state = look.verified.get("installed"), look.verified.get("state")
    if "unreadable" in look.verified or "unreadable" in look.status:
        wrong.append(f"verify or status gave no answer: {look.sections['verify'][-300:]} {look.sections['status'][-300:]}")
    elif state == "intact":
        missing, more = differences(look.installed_tree(), expected.get(str(installed), ["no such version"]))
        if missing or (more and phase_name != "force"):
            wrong.append(f"said to be intact as {installed}, but {_few(missing)} is missing, {_few(more)} is too much")
    elif state == "damaged" and not look.verified.get("cut_short") and phase_name != "fix":
        wrong.append(f"damaged without a mark: {look.verified}")
    wrong += _kept_word(phase_name, look, said)
    return wrong


def _kept_word(phase_name, look, said):
    """What was said to be done is done after the cut, too."""
    wrong = []
    if phase_name == "signed":
        accepted = [int(number) for number in re.findall(r"accepted: \S+ : (\d+)\n", said)]
        now = [int(number) for number in re.findall(r"\d+", look.sections["trust"])]
        if accepted and (not now or now[0] < accepted[-1]):
            wrong.append(f"description {accepted[-1]} was accepted, and now the newest is {now}")
    if phase_name == "settings":
        written = re.findall(r"written: (on|off)\n", said)
        if len(written) == 4 and look.status.get("scheduled") is not True:
            wrong.append("the last setting was lost")
    if phase_name not in ("force", "settings", "signed", "move") and "@done" in said:
        if look.verified.get("installed") != PHASES[phase_name].right:
            wrong.append(f"was done, and now {look.verified.get('installed')} is installed")
    return wrong


def outcome(phase_name, look, expected):
    """What is wrong after the one run."""
    phase = PHASES[phase_name]
    wrong = []
    missing, more = differences(look.installed_tree(), expected[str(phase.right)])
    if missing or more:
        wrong.append(f"not {phase.right}: {_few(missing)} is missing, {_few(more)} is too much in {look.directory}")
    if (look.verified.get("installed"), look.verified.get("state")) != (phase.right, "intact"):
        wrong.append(f"verify says {look.verified}")
    if look.status.get("state") != "up-to-date":
        wrong.append(f"status says {look.status.get('state')}")
    volumes = {path.split("/")[1] for _, _, path in look.files() if path.endswith("@database/autoupdate/" + NAME)}
    if len(volumes) != 1:
        wrong.append(f"databases on {sorted(volumes)}")
    wrong += [f"left over: {path}" for _, _, path in look.files() if not any(known.match(path) for known in KNOWN_FILES)]
    return wrong


def _few(lines):
    return "nothing" if not lines else "; ".join(lines[:3]) + (f" and {len(lines) - 3} more" if len(lines) > 3 else "")
