"""A PLC that does not answer, places that cannot be written, tables that are full."""
import pytest
from voqtest import USER, WORK, Key, Sim, com_info, log_off, log_on, traced, wait_for


@pytest.mark.parametrize("failure, marker, threshold", [(2, "timeout", 3), (3, "comerror", 5)])
def test_markers_and_states(start, failure, marker, threshold):
    key = Key(100, 4)
    (USER / "com_1").mkdir()
    (USER / "com_1" / marker).touch()
    service = start(com_info(pause=0), environment=traced())
    service.send(log_on(key, 1))
    wait_for(lambda: service.value(key) == service.sim.value(key), "a live value")
    (service / marker).unlink()  # left by an earlier run: there until failures were counted and ended
    made = f"open {service / marker} wb+"

    def fail_times(times):
        """The markers made while so many reads fail and the next ones succeed."""
        before = (WORK / "trace").read_text().count(made)
        service.sim.fail(failure, times)
        wait_for(lambda: service.sim.left_to_fail == 0, "failing reads")
        since = service.sim.logged
        wait_for(lambda: service.sim.logged > since + 2 and service.node(key).state == 1, "success")
        assert not (service / marker).exists()
        return (WORK / "trace").read_text().count(made) - before

    counts = 1, threshold - 1, threshold, threshold - 1, threshold + 4, 1000 + threshold + 1
    assert [fail_times(n) for n in counts] == [0, 0, 1, 0, 1, 1]
    service.sim.fail(failure)
    wait_for(lambda: (service / marker).exists() and service.node(key).state == failure, "the marker")
    assert not (service / {"timeout": "comerror", "comerror": "timeout"}[marker]).exists()
    before, value = service.node(key), service.value(key)
    service.sim.set(key, bytes(key.size))
    wait_for(lambda: service.node(key).stamp > before.stamp, "a later attempt")
    assert service.value(key) == value and (service / marker).stat().st_size == 0
    service.sim.fail(0)
    wait_for(lambda: service.value(key) == bytes(key.size) and not (service / marker).exists(), "recovery")


def test_org_list_pass_waits_out_a_timeout(start):
    """A port in time-out reads no registered range; each gets its one attempt when the port answers again."""
    sim = Sim()
    sim.fail(sim.TIMEOUT, 1)
    service = start(com_info(word_limit=8), [Key(20 * i, 8) for i in range(10)], sim=sim)
    wait_for(lambda: sim.left_to_fail == 0, "the first read")
    wait_for(service.sim.quiet, "no further reads")
    assert [n.state for n in service.chain()].count(0) >= 1
    service.send(log_on(Key(1000, 1), 1))
    wait_for(lambda: all(n.state for n in service.chain()), "the rest of the table")
    assert [n.state for n in service.chain()].count(2) == 1


def test_full_fast_list(start):
    service = start(com_info(pause=0, packing=1), [Key(0, 1)])
    ranges = [Key(i, 1) for i in range(2049)]
    service.send(b"".join(log_on(key, i, 12) for i, key in enumerate(ranges[:2048])))
    service.wait_out("*VOQ*fast list full, log-on refused,FILENO=2047\r\n")
    service.send(log_on(ranges[5], 9999, 12) + log_off(ranges[2047], 2047, 12))
    service.wait_out("*VOQ*Same req, LOGTIMES++ =2\r\n")
    service.wait_out("*VOQ*del fast fileno=2047 error!!!\r\n")
    service.send(log_off(ranges[1000], 1000, 12) + log_on(ranges[2048], 2048, 12) + log_on(ranges[2047], 2047, 12))
    service.wait_out("*VOQ*fast list full, log-on refused,FILENO=2047\r\n", 2)
    service.send(log_off(ranges[2048], 2048, 12) + log_off(ranges[2048], 2048, 12))
    service.wait_out("*VOQ*del fast fileno=2048 error!!!\r\n")
    since = service.sim.logged
    wait_for(lambda: service.sim.logged > since + 50, "polling goes on")
