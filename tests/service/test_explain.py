"""What voqctl explain says of a port, against what its service does then."""
import json

from voqtest import Key, Sim, com_info, log_on, voqctl, wait_for

KEYS = [Key(addr, 2) for addr in (0, 2, 20, 40, 90)]


def explained():
    """The rows by kind."""
    rows = [json.loads(line) for line in voqctl("explain", "--json").stdout.splitlines()]
    return {kind: [row for row in rows if row["kind"] == kind] for kind in ("range", "round", "advice")}


def whole_round(service, reads):
    for n, key in enumerate(KEYS, 1):
        service.send(log_on(key, n))
    return wait_for(lambda: (said := explained())["round"] and said["round"][0]["reads"] == reads and
                    said["round"][0]["ranges"] == len(KEYS) and said, f"a round of {reads} reads")


def test_what_is_promised_of_a_gap_comes(start):
    service = start(com_info(word_gap=10, pause=3), KEYS)
    said = whole_round(service, 4)
    together = {int(row["expression"].split("@")[1].split("*")[0]): (row["elements"], row["gaps"], row["others"])
                for row in said["range"]}
    assert together[0] == together[2] == (4, 0, 1)
    assert together[90] == (2, 0, 0)
    gap = next(row for row in said["advice"] if "gap" in row["text"])
    assert gap["text"] == "word_gap = 19 (now 10): 2 reads less in a round" and gap["saves_s"] >= 0.006
    assert "pause_ms = 1 (now 3)" in {row["text"] for row in said["advice"]}
    service.stop()
    service = start(com_info(word_gap=19, pause=1), KEYS)
    said = whole_round(service, 2)
    assert said["advice"] == [] and {row["gaps"] for row in said["range"]} == {34, 0}


def test_holes_and_a_station_that_is_away(start):
    service = start(com_info(pause=1), [*KEYS, Key(7, plcno=2)])
    whole_round(service, 4)
    service.sim.dig(Key(21))
    wait_for(lambda: [row["refused_since"] for row in explained()["range"]].count(None) == 4, "the refused range")
    service.sim.fail(Sim.TIMEOUT, station=2, delay_us=2000)
    service.send(log_on(Key(7, plcno=2), 9))
    wait_for(lambda: any("station 2 does not answer" in row["text"] for row in explained()["advice"]), "the lost station")
    said = voqctl("explain", "s1:a1:u16@20*2", "s1:a1:u16@0*2", "s1:a1:u16@77")
    assert "s1:a1:u16@20*2" in said.stdout and ": asked for every turn, not read: the device refuses it" in said.stdout
    assert ": asked for every turn, read every " in said.stdout
    assert "most for station 2" in said.stdout and "s1:a1:u16@77: no client has subscribed it" in said.stderr
