"""Stories of replays, from a few steps to more than a page can draw one by one."""

import json
import random
import sys

START = 1767225600_000000
SECOND = 1_000_000


def observation(time, line, identifier, args, taken=()):
    return {"time_us": time, "line": line, "what": "observation", "id": identifier, "args": list(args),
            "taken": list(taken)}


def timer(time, taken):
    return {"time_us": time, "what": "timer", "taken": list(taken)}


def taken(correlator, decisions=(), events=(), actions=(), notes=()):
    return {"correlator": correlator, "decisions": list(decisions), "events": list(events), "actions": list(actions),
            "notes": list(notes)}


def decision(name, kind, subject, text, seconds=0):
    return {"name": name, "kind": kind, "subject": subject, "text": text, "seconds": seconds}


def event(kind, name, text):
    return {"kind": kind, "event": name, "text": text}


def story(steps, host="host7", capture="day.capture"):
    every = [one for step in steps for one in step.get("taken", [])]
    events = sum(1 for one in every for said in one["events"] if said["kind"] in ("problem", "audit", "clear"))
    return {"host": host, "version": "0.1.0", "capture": capture,
            "from_us": steps[0]["time_us"] if steps else START, "to_us": steps[-1]["time_us"] if steps else START,
            "clock": "UTC",
            "counts": {"observations": sum(1 for step in steps if step["what"] == "observation"), "events": events,
                       "actions": sum(len(one["actions"]) for one in every)},
            "steps": steps}


def link_down(time, line, nic, switch="switch0", groups="Production"):
    """A link that goes down, and what is said of it a second later."""
    return [
        observation(time, line, "kel.net.qnic.linkstate.down", [nic], [taken("net", [
            decision("net.flapping.counted", "counts", nic, "1 link state change within 3600 s, 3 are too many", 3600),
            decision("net.link.waits", "waits", nic, "put on record as link down, to be settled in 1 s", 1)])]),
        observation(time + 2000, line + 1, "kel.net.pg.uplink.transition.down", [groups, nic, 0], [taken("net", [
            decision("net.link.waits", "waits", nic, f"port group {groups} has 0 active uplinks", 1)])]),
        timer(time + SECOND, [taken("net", [
            decision("net.link.settled", "concludes", nic, "down for 1 s: said")],
            [event("problem", "orn.problem.net.connectivity.lost", f"Lost network connectivity on virtual switch "
                   f"{switch}. Physical NIC {nic} is down. Affected port groups: {groups}")])]),
    ]


def link_up(time, line, nic):
    return [
        observation(time, line, "kel.net.qnic.linkstate.up", [nic], [taken("net", [
            decision("net.link.waits", "waits", nic, "put on record as link up, to be settled in 1 s", 1)])]),
        timer(time + SECOND, [taken("net", [decision("net.link.settled", "concludes", nic, "up for 1 s: said")],
              [event("clear", "orn.clear.net.qnic.linkstate.up", f"Physical NIC {nic} linkstate is up")])]),
    ]


def small():
    steps = link_down(START + 100_000, 2, "qnic0") + link_up(START + 8_250_000, 4, "qnic0")
    steps += [{"time_us": START + 10_250_000, "what": "end", "text": "the capture ended in order"}]
    return story(steps, capture="small.capture")


def flapping(time, line, nic):
    steps = []
    for turn in range(4):
        steps += link_down(time + turn * 9 * SECOND, line + turn * 4, nic)
        steps += link_up(time + turn * 9 * SECOND + 4 * SECOND, line + turn * 4 + 3, nic)
    at = time + 40 * SECOND
    steps.append(observation(at, line + 20, "kel.net.qnic.linkstate.down", [nic], [taken("net", [
        decision("net.flapping.taken-down", "acts", nic, "4 link state changes within 3600 s, more than 3"),
        decision("net.flapping.held", "holds", nic, "nothing more is said of this NIC", 1800)],
        [event("problem", "orn.problem.net.qnic.linkstate.flapping",
               f"Taking down physical NIC {nic} because the link is unstable.")],
        [{"action": "nic.down", "nic": nic}])]))
    return steps


def paths(time, line, count, random_source):
    steps = []
    for at in range(count):
        path = f"qhba{1 + at % 2}:C0:T{at % 4}:L{at % 6}"
        when = time + int(at * 37 * SECOND * (0.2 + random_source.random()))
        down = at % 3 != 2
        state = "dead" if down else "on"
        said = []
        if at % 6 == 0:
            said = [event("problem", "orn.problem.storage.redundancy.lost",
                          f"Lost path redundancy to storage device naa.60a98000{at:04d}. Path {path} is down. "
                          "Affected datastores: \"Production A\".")]
        elif at % 6 == 2:
            said = [event("clear", "orn.clear.storage.redundancy.restored",
                          f"Path redundancy to storage device naa.60a98000{at:04d} restored. Path {path} is active again.")]
        steps.append(observation(when, line + at, f"kel.scsi.scsipath.pathstate.{state}", [path, 0 if down else 3],
                                 [taken("scsi", [decision("scsi.paths.counted", "counts", path,
                                                          f"{at} path events within 3600 s, 10 are too many", 3600),
                                                 decision("scsi.path.state", "concludes" if said else "holds", path,
                                                          "said" if said else "no down report was made", 0)], said)]))
    return steps


def day():
    """A whole day of a host: network, storage, clock and processors; the agent away; the clock set back."""
    source = random.Random(7)
    hour = 3600 * SECOND
    steps = link_down(START + 900 * SECOND, 2, "qnic0") + link_up(START + 960 * SECOND, 5, "qnic0")
    steps += paths(START + 2 * hour, 100, 40, source)
    steps += flapping(START + 5 * hour, 200, "qnic1")
    steps += link_down(START + 5 * hour + 90 * SECOND, 230, "qnic10") + link_up(START + 6 * hour, 240, "qnic10")
    steps += [{"time_us": START + 8 * hour, "what": "agent", "text": "away"}]
    for at in range(3):
        when = START + 8 * hour + (at + 1) * 400 * SECOND
        steps.append(observation(when, 300 + at, "kel.scsi.device.io.latency.high", [f"naa.60a98000{at:04d}", 5 + at, 61],
                                 [taken("scsi", [decision("scsi.latency.held", "holds", f"naa.60a98000{at:04d}",
                                                          "nothing more of this device for 10 min", 600)],
                                        [event("problem", "orn.problem.scsi.device.io.latency.high",
                                               f"Device naa.60a98000{at:04d} performance has deteriorated."),
                                         {"kind": "queued", "event": "orn.problem.scsi.device.io.latency.high"}])]))
        steps.append(timer(when + 180 * SECOND, [taken("delivery", [], [
            {"kind": "waiting", "event": "orn.problem.scsi.device.io.latency.high", "text": "after 1 failure"}])]))
    steps.append({"time_us": START + 9 * hour, "what": "agent", "text": "back"})
    steps.append(timer(START + 9 * hour + 60 * SECOND, [taken("delivery", [], [
        {"kind": "resent", "event": "orn.problem.scsi.device.io.latency.high", "text": "after 3 failures"},
        {"kind": "lost", "event": "orn.problem.scsi.device.io.latency.high", "text": "after 10 failures"},
        {"kind": "dropped", "event": "orn.problem.scsi.device.io.latency.high"}])]))
    for at in range(60):
        page = 0x3f2a00 + at % 3
        steps.append(observation(START + 11 * hour + at * 120 * SECOND, 400 + at, "kel.cpu.mce.log",
                                 [at % 16, 18446744073709551615 - at, f"page {page:#x}"],
                                 [taken("cpu", [decision("cpu.page.counted", "counts", f"page {page:#x}",
                                                         f"{at // 3 + 1} corrected errors within 24 h", 86400)],
                                        [event("problem", "orn.problem.cpu.mce.page",
                                               f"Page {page:#x} has too many corrected errors.")] if at > 50 else [],
                                        [{"action": "page.retire", "page": page}] if at > 56 else [])]))
    steps.append({"time_us": START + 14 * hour, "what": "facts", "text": "portGroups: Production on switch1"})
    steps.append(observation(START + 15 * hour, 470, "kel.clock.correction.adjtime.lostsync", [],
                             [taken("clock", [decision("clock.sync.lost", "concludes", "clock", "said at once")],
                                    [event("audit", "orn.audit.clock.correction.adjtime.lostsync",
                                           "NTP daemon stopped. Time correction is disabled.")])]))
    steps.append({"time_us": START + 15 * hour + SECOND, "what": "clock", "text": "set to 2026-01-01T14:00:00"})
    steps.append(observation(START + 14 * hour + 10 * SECOND, 471, "kel.clock.correction.delta.allowed", [3600],
                             [taken("clock", [decision("clock.delta", "concludes", "clock", "3600 s are allowed")],
                                    [event("audit", "orn.audit.clock.correction.set", "Clock stepped to 1767276010.")])]))
    steps.append(observation(START + 16 * hour, 472, "kel.hcm.something.new", ["a", None, 1.5]))
    steps += link_down(START + 20 * hour, 480, "qnic2")
    steps.append({"time_us": START + 21 * hour, "what": "restart", "text": "keld was started anew"})
    steps += link_up(START + 21 * hour + 30 * SECOND, 490, "qnic2")
    steps.append({"time_us": START + 24 * hour, "what": "end", "text": "the capture ended in order"})
    return story(in_order(steps))


def in_order(steps):
    """By time up to the clock's step and behind it; the sort keeps what stands behind the step there."""
    cut = next((at for at, step in enumerate(steps) if step["what"] == "clock"), len(steps))
    time = lambda step: step["time_us"]
    return sorted(steps[:cut], key=time) + steps[cut:cut + 1] + sorted(steps[cut + 1:], key=time)


BREAKS = ["</script><script>document.title='broken'</script>", "<!--<script>", "]]>", "<img src=x onerror=alert(1)>",
          "\u2028\u2029", "\u202egnp.exe", "__proto__", "constructor", "a\u0000b\u0007\n\t", "\ufffd", "x" * 6000,
          "'\"`${1}\\", "&lt;b&gt;", "javascript:alert(1)", "😀 ünï", ""]


def hostile():
    steps = []
    for at, text in enumerate(BREAKS):
        steps.append(observation(START + at * SECOND, at, text, [text, {"exactInteger": text}, [text]], [
            taken(text, [decision(text, text, text, text, 2), decision(text, "waits", text, text, 1)],
                  [event(text, text, text), event("problem", text, text)], [{text: text}, text, None, {"back": {}}],
                  [text])]))
        steps.append({"time_us": START + at * SECOND, "what": text, "text": text})
    steps += [{}, {"what": "observation"}, {"what": "observation", "taken": [None, {}, {"decisions": [None, 3], "events": [None]}]},
              {"time_us": "soon", "what": 7, "taken": "none", "args": {}}, {"time_us": -5, "what": "timer"},
              {"time_us": 1e300, "what": "end"}, None, 17, "step"]
    told = story([step for step in steps if isinstance(step, dict) and "time_us" in step and "what" in step
                  and not isinstance(step.get("taken"), str)])
    return {**told, "host": BREAKS[0], "capture": BREAKS[1], "clock": BREAKS[3], "version": BREAKS[2], "steps": steps,
            "to_us": START + 60 * SECOND, BREAKS[0]: BREAKS[0]}


def long(count):
    """So many steps within a week, in bursts, of many objects."""
    source = random.Random(count)
    steps = []
    time = START
    for line in range(count):
        time += source.choice([800, 20_000, SECOND // 2, 60 * SECOND]) * 7 * 86400 // max(count, 1) * 6 // 30 + 1
        group = source.choice(["net", "scsi", "scsi", "cpu", "hardware", "vm"])
        subject = {"net": f"qnic{line % 12}", "scsi": f"qhba{line % 4}:C0:T{line % 5}:L{line % 7}", "cpu": f"page {line % 900:#x}",
                   "hardware": f"sensor {line % 9}", "vm": f"vm {line % 30}"}[group]
        said = [event("problem", f"orn.problem.{group}.state", f"{subject} is down")] if line % 37 == 0 else []
        said += [event("clear", f"orn.clear.{group}.state", f"{subject} is up")] if line % 37 == 9 else []
        steps.append(observation(time, line + 2, f"kel.{group}.state.changed", [subject, line], [taken(group, [
            decision(f"{group}.counted", "counts", subject, f"{line % 10} within 60 s", 60)], said)]))
    return story(steps, capture=f"{count}.capture")


STORIES = {"small": small, "day": day, "hostile": hostile, "empty": lambda: story([]),
           "20000": lambda: long(20_000), "200000": lambda: long(200_000)}

if __name__ == "__main__":
    json.dump(STORIES[sys.argv[1]](), sys.stdout)
