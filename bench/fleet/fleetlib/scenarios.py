"""What docs/scale.md is made of. Times are seconds, sizes bytes of bodies."""

import copy

HOUR, DAY = 3600, 86400
MBIT = 125000  # bytes a second
FULL, DELTA = 4_000_000, 120_000
HISTORY = 30  # Releases that were there before the week begins.

# Where devices are: shares, and hours east of Greenwich.
WORLD = [(0.05, 0), (0.35, 1), (0.10, 2), (0.05, 5.5), (0.10, 8), (0.05, 9), (0.05, -8), (0.05, -7), (0.10, -6), (0.10, -5)]

HOURLY = {"period": HOUR, "delay": HOUR, "fixed": True, "persistent": True}


def releases(days, at=9 * HOUR):
    """One of a day in the morning, and those that were there before."""
    found = [{"version": 1, "full_bytes": FULL}]
    found += [{"version": version, "full_bytes": FULL, "delta_bytes": DELTA} for version in range(2, HISTORY + 1)]
    return found + [{"version": HISTORY + 1 + day, "at": day * DAY + at, "full_bytes": FULL, "delta_bytes": DELTA}
                    for day in range(days)]


def ordinary(name, devices, days, about, description):
    """A fleet as one may expect it: some are off or asleep at night, some come back after days, some have nothing yet."""
    return {
        "name": name, "about": about, "devices": devices, "seconds": days * DAY, "seed": 1,
        "description_bytes": description[0], "description_delta_bytes": description[1],
        "line_bytes_per_second": 20 * MBIT,
        "zones": [{"share": share, "seconds": int(hours * HOUR)} for share, hours in WORLD],
        "presence": {"off": 0.2, "asleep": 0.1, "away": 0.02, "back": 3 * DAY + 8 * HOUR},
        "start": [{"share": 0.01, "version": 0}, {"share": 0.02, "version": 1}],
        "releases": releases(days), "series_seconds": 600,
    }


def at_home(name, devices, days, about, description):
    """A fleet in one zone that is always there, so that one thing can be seen at a time."""
    scenario = ordinary(name, devices, days, about, description)
    for member in ("zones", "presence", "start"):
        del scenario[member]
    return scenario


def changed(scenario, name, about, **members):
    other = copy.deepcopy(scenario)
    other.update(name=name, about=about, **members)
    return other


def staged(scenario, name, about, stopped=None, **members):
    other = changed(scenario, name, about, **members)
    plan = [{"share": 0.01, "seconds": 6 * HOUR}, {"share": 0.1, "seconds": 18 * HOUR}, {"share": 1.0, "seconds": DAY}]
    other["releases"] = releases(0) + [{"version": HISTORY + 1, "at": 9 * HOUR, "full_bytes": FULL, "delta_bytes": DELTA, "plan": plan}]
    if stopped is not None:
        other["releases"][-1]["stopped"] = stopped
    return other


def all_scenarios(description):
    """description: bytes without deltas, and more for each delta."""
    week = ordinary("week-1m", 1_000_000, 7, "A normal week of 1,000,000 devices", description)
    once = at_home("together", 1_000_000, 2, "1,000,000 devices of one time zone, all at midnight", description)
    once.update(timer={"period": DAY, "delay": 0, "fixed": True, "persistent": True}, series_seconds=60,
                server={"bytes_per_second": 1000 * MBIT, "requests_per_second": 2000})
    # A release during the outage, at four hours, so that everybody has something to fetch afterwards.
    outage = at_home("outage-without", 100_000, 2, "An outage of eight hours, hourly timers, without cool-downs", description)
    outage.update(timer=HOURLY, cool_down=False, series_seconds=300, outages=[{"from": 6 * HOUR, "until": 14 * HOUR}],
                  releases=releases(1, 10 * HOUR))
    small = {"bytes_per_second": 10 * MBIT}
    crowded = dict(small, connections=1536)  # Debian's nginx with two workers.
    home = at_home("staged", 100_000, 5, "A release in stages, daily timers", description)
    found = [
        changed(week, "week-100k", "A normal week of 100,000 devices", devices=100_000), week,
        changed(week, "week-10m", "A normal week of 10,000,000 devices", devices=10_000_000),
        outage,
        changed(outage, "outage-with", "The same with cool-downs", cool_down=True),
        changed(outage, "outage-small-without", "A line of 10 Mbit/s, without cool-downs", server=small),
        changed(outage, "outage-small-with", "A line of 10 Mbit/s, with cool-downs", server=small, cool_down=True),
        changed(outage, "outage-limit-without", "A line of 10 Mbit/s, 1536 connections, without cool-downs", server=crowded),
        changed(outage, "outage-limit-with", "A line of 10 Mbit/s, 1536 connections, with cool-downs", server=crowded, cool_down=True),
        staged(home, "staged", "A release in stages, daily timers"),
        staged(home, "staged-stopped", "The same, stopped in the second stage", stopped=9 * HOUR + 18 * HOUR),
        staged(home, "staged-hourly", "The same with hourly timers", timer=HOURLY),
        once,
        changed(once, "spread", "The same with the timer as shipped",
                timer={"period": DAY, "delay": 6 * HOUR, "fixed": True, "persistent": True}),
    ]
    evening = changed(found[0], "week-evening", "A normal week of 100,000 devices, releases at 21:00 UTC",
                      releases=releases(7, 21 * HOUR))
    found.append(evening)
    daily = changed(outage, "outage-daily", "The same outage, timers as shipped", cool_down=True, seconds=3 * DAY,
                    outages=[{"from": 0, "until": 8 * HOUR}], releases=releases(0) + [
                        {"version": HISTORY + 1, "at": 1, "full_bytes": FULL, "delta_bytes": DELTA}])
    del daily["timer"]
    found.append(daily)
    for size in (10, 100, 1000):
        found.append(changed(week, f"sites-{size}", f"A normal week, {size} devices behind each cache", devices_at_site=size))
    return found
