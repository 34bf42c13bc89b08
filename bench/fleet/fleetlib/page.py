"""docs/scale.md and its pictures, of what was kept."""

import re

from fleetlib import pictures
from fleetlib.scenarios import DELTA, FULL
from fleetlib.simulate import UNIT, Failed

HOUR, DAY = 3600, 86400
OVERHEAD = 5500  # Bytes of a request, its answer's head and a TLS connection; see docs/publishing.md.


def amount(count):
    for unit, size in (("TB", 1e12), ("GB", 1e9), ("MB", 1e6), ("kB", 1e3)):
        if count >= size:
            return f"{count / size:.3g} {unit}" if count / size < 100 else f"{count / size:,.0f} {unit}"
    return f"{count:,.0f} bytes"


def hours(seconds):
    if seconds is None:
        return "never"
    return f"{seconds / HOUR:.1f} h" if seconds >= HOUR else f"{seconds / 60:.0f} min"


def mbits(bytes_per_second):
    value = bytes_per_second * 8 / 1e6
    return f"{value:,.0f} Mbit/s" if value >= 10 else f"{value:.1f} Mbit/s"


def share(part):
    return f"{100 * part:.1f} %"


class Run:
    """One scenario's result."""

    def __init__(self, told):
        self.told = told
        self.devices, self.all, self.series = told["devices"], told["all"], told["series"]
        self.step = told["series_seconds"]
        self.days = told["seconds"] / DAY

    def requests(self):
        return sum(self.all["requests"].values())

    def mean_bytes(self):
        return self.all["sent_bytes"] / self.told["seconds"]

    def with_connections(self):
        """Bytes with what a request costs besides its body."""
        return self.all["sent_bytes"] + OVERHEAD * self.requests()

    def rate(self, *names, scale=1.0):
        """[(second, sum of the columns a second)]"""
        return [(at, sum(self.series[name][index] for name in names) / self.step * scale)
                for index, at in enumerate(self.series["second"])]

    def most(self, *names, first=0, last=None):
        return max((value for at, value in self.rate(*names) if at >= first and (last is None or at < last)), default=0)

    def total(self, *names, first=0, last=None):
        return sum(self.series[name][index] for index, at in enumerate(self.series["second"])
                   if at >= first and (last is None or at < last) for name in names)

    def newest_share(self):
        """[(second at the end of each piece, share of devices that have the last release)]"""
        return [(at + self.step, count / self.devices) for at, count in zip(self.series["second"], self.series["newest"])]

    def share_at(self, second):
        return max(value for at, value in self.newest_share() if at <= second)

    def reached(self, name):
        return self.told["releases"][-1][name]


class Results:
    def __init__(self, kept, real, load, descriptions):
        self.kept, self.real, self.load = kept, real, load
        self.runs = {name: Run(told) for name, told in kept["scenarios"].items()}
        self.descriptions = {(one["databases"], one["deltas"], one["signed"]): one for one in descriptions}

    def load_of(self, file, scheme, kept=False):
        return next(one for one in self.load["rows"] if (one["file"], one["scheme"], one["kept"]) == (file, scheme, kept))


def require_shipped_timer(results):
    """These figures are those of the timer that is shipped."""
    unit = UNIT.read_text()
    delay = re.search(r"^RandomizedDelaySec=(\d+)h$", unit, re.M)
    shipped = {"period": DAY if "\nOnCalendar=daily\n" in unit else None, "delay": int(delay[1]) * HOUR if delay else None,
               "fixed": "\nFixedRandomDelay=yes\n" in unit, "persistent": "\nPersistent=yes\n" in unit}
    for name in ("week-100k", "week-1m", "week-10m", "spread", "staged", "outage-daily"):
        if results.runs[name].told["timer"] != shipped:
            raise Failed(f"{name} was simulated with another timer than {UNIT.name}: simulate anew by bench/fleet/fleet run")


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "| --- |" + " ---: |" * (len(heads) - 1)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def command(text):
    return f"Command: `{text}`\n"


def simulated(names):
    return command(f"bench/fleet/fleet run --only '{names}'")


INTRODUCTION = """# How many devices a server carries

For publishers: what a fleet asks of a server on ordinary and on bad days, when a second server or a CDN pays, and which
settings help. The arithmetic for one's own numbers is in [publishing.md](publishing.md#load); here is how it is spread over
time. Figures are made by `bench/fleet/fleet report` of what `bench/fleet` has simulated and measured, so do not change this
page by hand. Everybody can run it with a scenario of their own:

    cmake --build build/release --target fleet_simulate
    bench/fleet/fleet show week-1m >mine.json
    bench/fleet/fleet try mine.json --picture mine.svg

The simulation goes through every second of every device, by the rules of real ones: the shipped timer, zones, nights, the hour
for which a description counts, chains of deltas, cool-downs, downloads that are given up. It was
[compared with real devices](#checked-against-real-devices).

"""

ASSUMED = f"""## The fleet of these figures

One database; a release each day at 9:00 UTC, {FULL / 1e6:g} MB in full and {DELTA / 1e3:g} kB as a delta; descriptions are signed. Devices follow the
shipped timer: at their local midnight, and by up to six hours later, each always by the same. They are in ten zones around the
world, half of them in Europe; 20 % are switched off outside their hours (eight in the morning to six, by up to an hour more or less),
10 % sleep then, 2 % are away for three days; at the beginning 1 % have nothing and 2 % a version that is too old for deltas. Lines
have 20 Mbit/s. "One zone" means: all in UTC, always there, all with the newest version at the beginning. Bytes are those of
bodies, MB are 1,000,000 bytes; a request on a connection of its own costs some 5,500 bytes besides.

"""


def in_short(results):
    rows = []
    for name in ("week-100k", "week-1m", "week-10m"):
        run = results.runs[name]
        most = max(run.most("sent_bytes"), 1)
        rows.append([f"{run.devices:,}", f"{run.requests() / run.days:,.0f}", f"{run.told['peak_requests']['value']:,}",
                     amount(run.all["sent_bytes"] / run.days), amount(run.with_connections() / run.days),
                     mbits(run.mean_bytes()), mbits(most),
                     share(run.told["received_bytes"]["description"] / run.all["sent_bytes"])])
    newest = results.runs["week-1m"].told["releases"][-2]
    return "## A normal week\n\n" + table(
        ["devices", "requests a day", "most in one second", "bodies a day", "with connections", "on average", "most in ten minutes",
         "of it descriptions"], rows) + f"""
![Megabytes that the server sends a second, over a week, to a million devices](pictures/fleet-week.svg)

A million devices, always with the same pattern: whoever has its hours at the time asks, the most when it is night in Europe. On the first
day those that have nothing come in full. A release has reached 50 % of devices after {hours(newest["seconds_50"])}, 90 % after {hours(newest["seconds_90"])}, 99 % after
{hours(newest["seconds_99"])}: that is the timers, not the server.

**A device that is switched off at times, and on for less time than its own delay of up to six hours, misses every run**: a missed run
waits for its delay after the start as well. All devices here are on for ten hours. Others want a smaller `RandomizedDelaySec`, or
`tolmdbud update --all --scheduled` at their start.

""" + simulated("week") + "\n"


def carries(results):
    rows = []
    for one in results.load["rows"]:
        rows.append([f"{one['file']}, {amount(one['bytes'])}", one["scheme"] + (", connection kept" if one["kept"] else ""),
                     f"{one['requests_per_second']:,.0f}", f"{one['bytes_per_second'] / 1e6:,.1f} MB/s",
                     f"{one['processor_microseconds']:,.0f} µs"])
    new = results.load_of("description", "https")
    delta = results.load_of("delta", "https")
    week = results.runs["week-1m"]
    peak = week.told["peak_requests"]["value"]
    busy = peak * max(new["processor_microseconds"], delta["processor_microseconds"]) / 1e6
    return f"""## What one small server carries

nginx {results.load['nginx']} with [packaging/server/nginx.conf](../packaging/server/nginx.conf), two workers on {results.load['processors']} processors of a virtual machine; wrk asked on
loopback, 64 requests at a time. It had the same processors, and so had other work: the load was {results.load['load_before']} before. **So requests a second
are the least that it can do, and there was no network at all**; what counts is nginx's own processor time for a request.

""" + table(["file", "by", "requests/s", "bytes", "nginx's time for each"], rows) + f"""
Devices make a new connection for each request, so the second row of each file is theirs: the handshake is most of what a description
costs. A million devices ask {peak:,} times in their worst second, which is {busy:.2f} of one such processor. **Processors are not the
limit of a normal week, the line is**: of {mbits(week.most('sent_bytes'))} in the worst ten minutes, deltas are
{share(week.told['received_bytes']['delta'] / week.all['sent_bytes'])} of the week, full packages {share(week.told['received_bytes']['full'] / week.all['sent_bytes'])}. A release without a delta is another matter: a
million full packages are {amount(FULL * 1e6)}, {hours(FULL * 1e6 / 12.5e6)} of a line of 100 Mbit/s and {hours(FULL * 1e6 / 125e6)} of one of 1 Gbit/s.

""" + command(f"bench/fleet/load --seconds {results.load['seconds']} --rounds {results.load['rounds']}") + "\n"


def together(results):
    at_once, spread = results.runs["together"], results.runs["spread"]
    return f"""## All at once

![Requests a second after midnight: all at once, and spread over six hours](pictures/fleet-together.svg)

The same million devices in one zone, with `RandomizedDelaySec=0` and as shipped, on a server with 1 Gbit/s that answers 2,000 requests
a second. Without the delay {at_once.told['peak_requests']['value']:,} ask in one second; those that wait for longer than a minute are given up, and each comes
three times. Of {at_once.all['runs']:,} runs in two days {at_once.all['failed']:,} fail. With the delay {spread.told['peak_requests']['value']:,} ask in the worst second, and {spread.all['failed']:,} runs fail.
Cron's table and the timer are shipped with the delay; a fleet's own scheduler needs one, too.

""" + simulated("together|spread") + "\n"


OUTAGES = (("outage-without", "enough, without"), ("outage-with", "enough, with"), ("outage-small-without", "10 Mbit/s, without"),
           ("outage-small-with", "10 Mbit/s, with"), ("outage-limit-without", "10 Mbit/s, 1,536 connections, without"),
           ("outage-limit-with", "10 Mbit/s, 1,536 connections, with"))


def outage(results):
    begin, end = 6 * HOUR, 14 * HOUR
    rows = []
    for name, label in OUTAGES:
        run = results.runs[name]
        since = run.told["releases"][-1]["at"] - end
        rows.append([label, f"{run.total('refused', first=begin, last=end):,}", mbits(run.most("sent_bytes", first=end)),
                     f"{run.total('given_up', first=end):,}", f"{run.all['reset']:,}", amount(run.told["wasted_bytes"]),
                     *(hours(None if run.reached(at) is None else since + run.reached(at)) for at in ("seconds_50", "seconds_90", "seconds_99"))])
    without, gentle, small, saved = (results.runs[name] for name, _ in OUTAGES[:4])
    daily = results.runs["outage-daily"]
    refused = gentle.total("refused", first=begin, last=end) / without.total("refused", first=begin, last=end)
    return f"""## An outage of eight hours

![Share of devices that have a release after an outage of eight hours, with and without cool-downs](pictures/fleet-outage.svg)

![Requests a second during and after an outage of eight hours on a small line, with and without cool-downs](pictures/fleet-outage-requests.svg)

{without.devices:,} devices in one zone whose timers were set to every hour (`OnCalendar=hourly`, spread over the hour). The server is away from 6:00 to
14:00, and a release waits behind the outage: {amount(without.devices * DELTA)} of deltas, for which a line of 10 Mbit/s needs {hours(without.devices * DELTA / 1.25e6)} when nothing is sent in vain.
[Cool-downs](formats/cool-down.md) are 7½ to 15 minutes after the first failure, and up to eight hours in the end; "without" is what would happen if there
were none. The last columns count from the end of the outage.

""" + table(["line, cool-downs", "refused meanwhile", "most in five minutes after it", "given up", "reset", "sent in vain", "50 %", "90 %", "99 % have it"], rows) + f"""
- Where the line is wide enough, cool-downs spare the server {share(1 - refused)} of the requests that it could not hear, and the return is spread:
  {mbits(gentle.most('sent_bytes', first=end))} at most in place of {mbits(without.most('sent_bytes', first=end))}.
- **Where it is too narrow for what comes in an hour, a fleet without cool-downs never comes back.** All share the line until nobody gets
  1024 bytes a second; after five minutes downloads are given up, a delta that is given up leads to the full package, and the next hour's devices
  find the line full. In {hours(2 * DAY - end)} {small.told['releases'][-1]['devices']:,} devices got the release, and {amount(small.told['wasted_bytes'])} were sent in vain. With cool-downs
  fewer and fewer ask until the line is enough for them, and all {saved.told['releases'][-1]['devices']:,} have it.
- **A limit of connections helps as well**: nginx resets what comes beyond `worker_connections` (times the workers) at once, which costs
  next to nothing, and who is let in gets its package. So many that each has 1024 bytes a second, or the package within five minutes: the line's bytes a
  second, divided by 1024, are not too many. Debian's nginx has 768 for each worker. With that alone the fleet is
  through sooner than with cool-downs besides, which wait for longer than they would have to.
- **With the timer as shipped there is no storm**: runs are a day apart, longer than any cool-down, and each device comes back in
  its own minute. An outage of the first eight hours of a day fails {daily.total('refused', first=0, last=DAY):,} runs, each device once; the day after brings {mbits(daily.most('sent_bytes', first=DAY))} at
  most. What it costs is a day: 50 % have a release of midnight after {hours(daily.reached('seconds_50'))}, 99 % after {hours(daily.reached('seconds_99'))}.

""" + simulated("outage") + "\n"


def stages(results):
    daily, hourly, stopped = (results.runs[name] for name in ("staged", "staged-hourly", "staged-stopped"))
    start = 9 * HOUR
    rows = [[label] + [share(run.share_at(start + after)) for run in (daily, hourly, stopped)]
            for label, after in (("after 6 h (plan: 1 %)", 6 * HOUR), ("after 24 h (plan: 10 %)", DAY), ("after 30 h (plan: 100 %)", 30 * HOUR),
                                 ("after 48 h", 2 * DAY), ("after 72 h", 3 * DAY))]
    return f"""## A release in stages

![Share of devices that have a release in stages, over time](pictures/fleet-staged.svg)

A plan of 1 % for six hours, 10 % for eighteen, then all: a device takes the release when its position, which is drawn anew for each
release, is below the share that the plan has reached ([staged versions](formats/description.md#staged-versions)). {daily.devices:,} devices in one zone; "stopped" is taken back
18 hours after its beginning. Simulated only.

""" + table(["", "daily timers", "hourly timers", "daily, stopped"], rows) + f"""
**A stage that is shorter than the time between two runs does not reach its share**: with the shipped timer, which runs after midnight,
a plan that begins at nine in the morning has reached nobody six hours later, so that nobody
could have seen a problem in it. Give each stage a day at least where timers are daily. Where it was stopped, {stopped.told['releases'][-1]['devices']:,} devices
have the release: of the 10 % those whose time came before.

""" + simulated("staged") + "\n"


def sites(results):
    whole = results.runs["week-1m"]
    rows = [["none", f"{whole.requests():,}", amount(whole.all["sent_bytes"]), "1", "1", mbits(whole.most("sent_bytes"))]]
    for size in (10, 100, 1000):
        run = results.runs[f"sites-{size}"]
        rows.append([f"{size:,}", f"{run.requests():,}", amount(run.all["sent_bytes"]), f"{run.requests() / whole.requests():.3f}",
                     f"{run.all['sent_bytes'] / whole.all['sent_bytes']:.3f}", mbits(run.most("sent_bytes"))])
    return """## Caches at sites

A cache in front of the devices of a site ([nginx-cache.conf](../packaging/server/nginx-cache.conf)) asks for each package once,
and for the description when its copy is older than a minute. The week of a million devices, by how many are behind each cache:

""" + table(["devices behind each", "requests", "bytes", "requests: part", "bytes: part", "most in ten minutes"], rows) + f"""
Descriptions profit little while a site's devices ask minutes apart: `max-age` is a minute. Packages profit by as many devices as ask
for the same. Devices of one site are in zones of the whole world here, which does not change what is fetched once.

""" + simulated("week-1m|sites") + "\n"


def description(results):
    rows = []
    for databases in (1, 10, 100):
        for deltas in (0, 1, 10, 20, 100):
            plain, signed = (results.descriptions[databases, deltas, kind] for kind in (False, True))
            rows.append([f"{databases}", f"{deltas}", f"{plain['bytes']:,}", f"{signed['bytes']:,}", f"{signed['gzip_bytes']:,}",
                         share(signed["bytes"] / (signed["bytes"] + databases / 7 * DELTA))])
    week = results.runs["week-1m"]
    large = results.descriptions[100, 20, True]["bytes"]
    return f"""## How the description grows

Each run loads it whole, unless the copy is younger than an hour. Made by `tolmdbpub` for a base URL of 27 characters, in bytes; the
last column: its share of what a device loads that runs once a day and gets a delta of {DELTA / 1e3:g} kB a week of each database.

""" + table(["databases", "deltas of each", "not signed", "signed", "signed, if it were sent by gzip", "share of the bytes"], rows) + f"""
It goes over the line as it is: devices store what comes, and could not read a compressed one
([packaging/server](../packaging/server/README.md)). In the week above it is {share(week.told['received_bytes']['description'] / week.all['sent_bytes'])} of the bytes. With 100 databases and 20 deltas each, a
million devices load {amount(large * 1e6)} of descriptions a day, {mbits(large * 1e6 / (6 * HOUR))} for six hours where they are in one zone. What helps: fewer deltas
(`tolmdbpub set REPO --chain-share`, a smaller share of the full package), databases that belong together in one, and several
repositories where no device has all databases. Devices refuse one of more than 4 MiB; `tolmdbpub` warns from a quarter on.

""" + command("bench/fleet/descriptions") + "\n"


def advice(results):
    week, ten = results.runs["week-1m"], results.runs["week-10m"]
    morning, evening = (results.runs[name].told["releases"][-2] for name in ("week-100k", "week-evening"))
    return f"""## When to take a CDN

- **Up to 100,000 devices** any server does, and a line of {mbits(results.runs['week-100k'].most('sent_bytes'))} in the worst ten minutes.
- **A million**: one server with 1 Gbit/s carries the week ({mbits(week.most('sent_bytes'))} at most) and has room for devices that come in full. One of
  100 Mbit/s has {12.5e6 / week.most('sent_bytes'):.1f} times what the worst ten minutes need.
- **Ten millions** ({mbits(ten.most('sent_bytes'))}), or releases without deltas, or databases of hundreds of megabytes: packages from a CDN
  or from several mirrors. They never change, so any cache keeps them for ever; the description is small and can stay at home
  ([operations.md](operations.md#moving-to-a-cdn)).
- Sites with many devices behind a narrow line: a cache there, whatever the server is.

## Which settings help

| setting | where | does |
| --- | --- | --- |
| `RandomizedDelaySec`, `FixedRandomDelay` | the timer of devices | spreads runs: devices of a zone / seconds of the delay begin in each second |
| `OnCalendar` | the timer of devices | each further run a day asks for one description more; packages stay as many |
| `--chain-share` | `tolmdbpub set` | more deltas: fewer full packages, a larger description |
| `--compression auto` | `tolmdbpub set` | [smaller full packages](publishing.md#how-packages-are-compressed) |
| a cache at the site | [nginx-cache.conf](../packaging/server/nginx-cache.conf) | one request for many devices |
| `--base-url` | `tolmdbpub set` | packages from elsewhere |
| releases at 21:00 rather than 9:00 UTC | the publisher's timer | nothing for the server; half of the devices of the week have a release after {hours(evening['seconds_50'])} in place of {hours(morning['seconds_50'])}, since runs are at night |

""" + simulated("week-100k|week-evening") + "\n"


def checked(results):
    rows, runs, first = [], [], results.real["scenarios"][0]
    for told in results.real["scenarios"]:
        for kind, one in told["kinds"].items():
            rows.append([f"{told['name']}: {kind}", f"{one['simulated_requests']:,}", f"{one['real_requests']:,}",
                         f"{one['simulated_bytes']:,}", f"{one['real_bytes']:,}"])
        outcomes = ", ".join(f"{one['real']} {name}" for name, one in
                             (("succeeded", told["outcomes"]["ok"]), ("failed", told["outcomes"]["failed"]), ("held back", told["outcomes"]["held"])))
        late = told["late_seconds"]
        runs.append(f"- **{told['name']}**: {told['devices']} devices, {told['runs']} runs, of which {outcomes}; {told['runs_that_differ']} ended otherwise than simulated. "
                    f"{told['simulated_seconds_in_one']:g} simulated seconds went by in one; a device began {late['median']} s after its time by the median, "
                    f"{late['most']} s at most.\n")
    return f"""## Checked against real devices

Real devices, each with a private root and the installed programs at their real paths, against a real nginx, at the
simulated times run through faster; requests and bytes of bodies are those of nginx's log. "days" is the shipped timer over two days, with devices that
have nothing, a version too old for deltas, one that is three, two or one behind; a release comes in between, and the server is away for
an hour. "hours" are hourly timers with an outage of more than four hours, so that cool-downs hold runs back; "often" are timers
of 25 minutes, so that a description is used again. On {results.real['date']}:

""" + table(["", "requests, simulated", "really", "bytes, simulated", "really"], rows) + "\n" + "".join(runs) + """
Each run must end as simulated, with the same version; requests must be equal, and bytes within one per cent. Not compared: staged
plans, caches at sites, and a server at its limits.

""" + command(f"bench/fleet/real --devices {first['devices']} --window {21600 / first['simulated_seconds_in_one']:g} --write") + "\n"


def not_said(results):
    ten, million = results.runs["week-10m"].told["cost"], results.runs["week-1m"].told["cost"]
    return f"""## What this does not say

- **The server of the simulation** shares its bytes equally among the answers under way, gives none more than a device's line, makes requests
  beyond those a second wait in turn, and refuses all while it is away. Waiting a minute, three tries and the pace below which downloads are
  given up are those of devices. Delay and loss of packets, TLS, and other visitors are not there.
- **Devices** ask once a second at most, and take no time to unpack. They do not disappear in the middle of a download. Nobody starts a run by
  hand. The weekly look at installed files asks for nothing where they are whole, and is left out. The service's limit of six hours for a run is left out.
- **Boots**: a missed run waits for its delay from the start of the system on, as systemd.timer(5) says of `Persistent=`. Zones have no summer time.
- Which devices a stage takes is drawn as evenly as [their positions](formats/description.md#staged-versions) are, which a test compares; it is not the hash that
  they use. The publisher makes a release the one for all when its last step has lasted for a day here; plans that are held are left out.
- The week of a million devices took {million['processor_seconds']:.1f} s of a processor and {million['peak_kib'] / 1024:.0f} MiB, that of ten millions {ten['processor_seconds']:.0f} s and {ten['peak_kib'] / 1024:.0f} MiB. The same seed gives
  the same figures.
"""


def text(results):
    require_shipped_timer(results)
    return (INTRODUCTION + ASSUMED + in_short(results) + carries(results) + together(results) + outage(results) + stages(results) +
            sites(results) + description(results) + advice(results) + checked(results) + not_said(results)).rstrip() + "\n"


def draw(results, directory):
    runs = results.runs
    week = runs["week-1m"].rate("sent_bytes", scale=1e-6)
    pictures.lines(directory / "fleet-week.svg", "A normal week of a million devices",
                   f"Megabytes that the server sends a second over seven days: a hill each night, up to {max(value for _, value in week):.0f} MB a second in ten minutes.",
                   "MB a second", [("sent to 1,000,000 devices", week)])
    clip = lambda curve, first, last: [(at, value) for at, value in curve if first <= at <= last]
    asked = {name: clip(runs[name].rate("description", "delta", "full"), 0, 8 * HOUR) for name in ("together", "spread")}
    silent = next(at for at, value in asked["together"] if value == 0) // 60
    pictures.lines(directory / "fleet-together.svg", "A million devices at midnight", "Requests a second, minute by minute, on a scale of powers of ten: without a "
                   f"delay {max(value for _, value in asked['together']):,.0f} in the first minute and none after {silent} minutes, with the delay {max(value for _, value in asked['spread']):,.0f} at most, for six hours.",
                   "requests a second (powers of ten)", [("all at once", asked["together"]), ("delay of up to 6 h, as shipped", asked["spread"])], powers=True)
    away, last = [(6 * HOUR, 14 * HOUR, "outage")], 2 * DAY
    percent = lambda name: [(at, value * 100) for at, value in runs[name].newest_share()]
    curves = [(f"line {label} cool-downs", clip(percent(name), 4 * HOUR, last)) for name, label in OUTAGES[:4]]
    pictures.lines(directory / "fleet-outage.svg", "Who has a release after an outage", "Per cent of devices that have a release which waited behind an outage of "
                   "eight hours, from 4 to 48 hours; at the end: " + ", ".join(f"{label} {curve[-1][1]:.0f}" for label, curve in curves) + ".",
                   "% of devices", curves, away, 100)
    curves = [(label, clip(runs[name].rate("description", "delta", "full", "refused"), 4 * HOUR, last)) for name, label in
              (("outage-small-without", "10 Mbit/s, without cool-downs"), ("outage-small-with", "10 Mbit/s, with cool-downs"))]
    told = "; ".join(f"{label}: up to {max(value for at, value in curve if 6 * HOUR <= at < 14 * HOUR):.0f} during it, "
                     f"{max(value for at, value in curve if at >= 14 * HOUR):.0f} after it" for label, curve in curves)
    pictures.lines(directory / "fleet-outage-requests.svg", "Requests around an outage", f"Requests a second from 4 to 48 hours, those that nobody heard too; the "
                   f"outage from 6 to 14. {told}.", "requests a second, unheard ones too", curves, away)
    start = 9 * HOUR
    plan = [(start, 1), (start + 6 * HOUR, 1), (start + 6 * HOUR, 10), (start + DAY, 10), (start + DAY, 100), (5 * DAY, 100)]
    pictures.lines(directory / "fleet-staged.svg", "A release in stages: 1 %, 10 %, all", "Per cent of devices that have the release over five days. The plan "
                   f"rises at once after 24 hours; daily timers follow after the next midnight; stopped in the second stage it stays at {100 * runs['staged-stopped'].share_at(5 * DAY):.0f} per cent.",
                   "% of devices", [("the plan", plan), ("daily timers", percent("staged")), ("daily timers, stopped at 10 %", percent("staged-stopped")),
                                    ("hourly timers", percent("staged-hourly"))])
