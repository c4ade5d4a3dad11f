# SPDX-License-Identifier: Apache-2.0
"""The session for scripts, against the real server."""
import concurrent.futures
import ctypes
import gc
import json
import os
import select
import signal
import subprocess
import weakref

import pytest

import tesk_client as tesk
from conftest import BIN, await_descriptors, folder
from tesk_client import _core, _feed
from tesk_client._library import printable

PATIENCE = 20


def connect(**options):
    return tesk.Session(**{"deadline_s": PATIENCE, **options})


def until(watch, kind, **values):
    """Takes changes until one is of this kind and has these values."""
    while not isinstance(change := watch.next(PATIENCE), kind) or any(
            getattr(change, name) != value for name, value in values.items()):
        assert change is not None


def test_values_have_their_units_and_what_is_unknown_is_harmless(server):
    server.board("set", "0", "rxpower=0uW", "txpower=2mW", "temperature=-5.5C", "voltage=3.2501V",
                 "txbias=31.99mA", "module_status=1")
    values = dict(rx_power_uw=0, rx_power_dbm=None, tx_power_uw=2000, tx_power_dbm=3.0103,
                  temperature_c=-5.4, voltage_v=3.2501, tx_bias_ma=31.99, bit_errors=None,
                  loss_of_signal=1, loss_of_frame=None)
    with connect() as session:
        pm = session.pm(0)
    assert {name: getattr(pm, name) for name in values} == pytest.approx(values)
    assert printable(b"a\\b\x1b[31m\xff") == "a\\\\b\\x1b[31m\\xff"
    assert tesk.Level(77).name == "UNKNOWN_77" and tesk.Level(77).text == "unknown"
    assert tesk.Level.HIGH_ALARM.text == "high alarm"


def test_a_refusal_has_the_server_s_text_and_leaves_nothing_subscribed(server):
    with connect() as session:
        with pytest.raises(tesk.NoPortError, match="no device") as refused:
            session.pm(4000)
        with pytest.raises(tesk.NoModuleError):
            session.pm(12)
        assert refused.value.error_code != 0 and refused.value.result == tesk.Result.REJECTED
        with pytest.raises(tesk.RejectedError, match="invalid port"):
            session.watch(status=[0, 1, 4000], sfp=[2])
        server.await_unsubscribed("0-2")
        assert session.watch(status=[0]).next(PATIENCE).port == 0


def test_bad_arguments_are_refused_before_anything_is_sent(server):
    with connect() as session:
        for call in (lambda: session.pm(-1), lambda: session.pm(2**32), lambda: session.pm(True),
                     lambda: session.watch(status=["0"]), lambda: session.watch(),
                     lambda: session.history(7), lambda: tesk.Session(deadline_s=0)):
            with pytest.raises((ValueError, TypeError)):
                call()
        assert session.pm(0).port == 0


def test_watches_share_a_subscription_and_the_last_one_ends_it(server):
    with connect() as session:
        first = session.watch(status=[0], sfp=[0])
        assert {type(first.next(PATIENCE)) for _ in range(2)} == {tesk.SfpInfo, tesk.PortStatus}
        with session.watch(status=[0]) as second:
            assert second.next(PATIENCE).link == tesk.Link.OPERATIONAL  # the present state, not the first change
        server.board("link", "0", "down")
        select.select([session], [], [], PATIENCE)
        assert first.next(0).link == tesk.Link.NOT_OPERATIONAL
        del first
        # The unsubscribe isn't answered yet.
        again = session.watch(status=[0])
        assert again.next(PATIENCE).link == tesk.Link.NOT_OPERATIONAL
        server.board("link", "0", "up")
        until(again, tesk.PortStatus, link=tesk.Link.OPERATIONAL)
        again.close()
        assert list(again) == []
        server.await_unsubscribed("0")
        actions = [record.action for record in session.history(tesk.HistoryKind.ACTIONS)]
        assert actions.count(tesk.Action.STATUS_SUBSCRIBE) == 2
        times = [record.time for record in session.history()]
        assert times == sorted(times) and times[0] < times[-1]
        assert session.watch(status=[13]).next(PATIENCE).sfp_type is None  # an empty cage
        (watch := session.watch(status=[2])).next(PATIENCE)
        session._core._subscriptions.clear()  # as if an unsubscribe had failed
        server.board("link", "2", "down")
        session._core.wait(PATIENCE)
        server.await_unsubscribed("2")
        watch.close()


def test_the_deadline_holds_whatever_the_server_does(server):
    with connect(deadline_s=0.5) as session:
        assert session.pm(0).port == 0
        server.signal(signal.SIGSTOP)
        for call in (lambda: session.pm(0), session.history, lambda: session.watch(status=[1])):
            with pytest.raises(tesk.DeadlineError):
                call()
        server.signal(signal.SIGCONT)
        server.await_unsubscribed("1")
        assert session.watch(status=[1]).next(PATIENCE).port == 1


def test_a_session_reconnects_and_renews_what_can_be_renewed(server, tmp_path):
    small = tmp_path / "board"
    small.write_text("ports 2\ninsert 0-1 lc link=down\n")
    with connect(retry_s=0.01) as session, session.watch(status=[0, 3]) as watch:
        until(watch, tesk.PortStatus, port=3)
        other = session.watch(status=[3])
        server.kill()
        until(watch, tesk.ServerLost)
        with session.watch(status=[0]) as late:
            assert late.next(0) is None
        server.start(DOLM_RIC_BOARD=str(small))
        assert watch.next(PATIENCE) == tesk.ServerRestored() and session.connected
        changes = {type(change): change for change in (watch.next(PATIENCE), watch.next(PATIENCE))}
        status, lost = changes[tesk.PortStatus], changes[tesk.SubscriptionLost]
        assert (status.port, status.link) == (0, tesk.Link.NOT_OPERATIONAL)
        assert (lost.kind, lost.port) == (tesk.Kind.PORT_STATUS, 3)
        assert isinstance(lost.error, tesk.RejectedError) and list(other)[-1] == lost
        server.board("link", "0", "up")
        until(watch, tesk.PortStatus, link=tesk.Link.OPERATIONAL)


def test_threads_and_children_are_kept_out(server):
    with connect() as session:
        def use():
            for call in (lambda: session.pm(0), session.close, lambda: session.connected):
                with pytest.raises(tesk.MisuseError, match="another thread"):
                    call()
            with connect() as own:
                return own.pm(1).port

        with concurrent.futures.ThreadPoolExecutor() as pool:
            assert pool.submit(use).result(PATIENCE) == 1
        if (child := os.fork()) == 0:
            try:
                with pytest.raises(tesk.MisuseError, match="forked"):
                    session.pm(0)
                session.close()
                with tesk.Session() as own:
                    own.pm(0)
                os._exit(0)
            finally:
                os._exit(1)
        assert os.waitpid(child, 0)[1] == 0
        assert session.watch(status=[0]).next(PATIENCE).port == 0


def test_closing_in_any_order_is_safe_and_nothing_leaks(server):
    tesk.Session().close()
    gc.disable()
    before, cores = len(os.listdir("/proc/self/fd")), []
    for _ in range(50):
        session = connect()
        watch = session.watch(status=[0], sfp=[1])
        cores.append(weakref.ref(session._core))
        for close in (session.close, watch.close, session.close):
            close()
        with pytest.raises(tesk.ClosedError):
            session.pm(0)
        del session, watch, close
    with pytest.warns(ResourceWarning, match="not closed"):
        (watch := connect().watch(status=[0])).next(PATIENCE)
        cores.append(weakref.ref(watch._core))
        del watch
    await_descriptors(before)
    assert not any(core() for core in cores)
    gc.enable()


def test_no_exception_of_a_signal_handler_vanishes(server, tmp_path, monkeypatch):
    """The signal is received in C code, right before the callback, so that Python raises in the callback's
    first instruction, which no try statement can contain."""
    Interrupt = type("Interrupt", (BaseException,), {})

    def interrupt(*_):
        raise Interrupt

    (tmp_path / "raise.c").write_text(
        "#include <signal.h>\nint tesk_client_dispatch(void *);\n"
        "int raising(void *s) { raise(SIGUSR1); return tesk_client_dispatch(s); }\n")
    subprocess.run(["cc", "-shared", "-fPIC", tmp_path / "raise.c", "-o", tmp_path / "raise.so",
                    f"-L{os.environ['TESK_BUILD_DIR']}/lib", "-ltesk_client"], check=True)
    raising = ctypes.CDLL(tmp_path / "raise.so").raising
    raising.argtypes = [ctypes.c_void_p]
    previous = signal.signal(signal.SIGUSR1, interrupt)
    with connect() as session:
        (watch := session.watch(status=[0])).next(PATIENCE)
        monkeypatch.setattr(_core._library, "tesk_client_dispatch", raising)
        for call in [lambda: session.pm(0), lambda: session.watch(status=[1])] * 20:
            with pytest.raises(Interrupt):
                call()
        monkeypatch.undo()
        assert isinstance(watch.next(PATIENCE), tesk.Missed)
        assert session.pm(0).port == 0
        assert session.watch(status=[1]).next(PATIENCE).port == 1
    signal.signal(signal.SIGUSR1, previous)


def test_a_watch_that_nobody_reads_is_bounded_and_keeps_each_port_s_last_state():
    feed = _feed.Feed([], lambda: None)
    changes = [tesk.SfpInfo(5 if number == 7 else 0, *[number] * 9)
               for number in range(10 * _feed.BACKLOG)]
    changes[8] = tesk.PortStatus(0, *[8] * 5)
    for change in changes:
        feed.put(change)
    taken = list(iter(feed.take, None))
    assert len(taken) <= _feed.BACKLOG + 1 and taken[-1] == changes[-1] and taken[1:3] == changes[7:9]
    assert taken[0] == tesk.Missed(len(changes) - len(taken) + 1)


def test_the_port_map_names_the_ports(tmp_path):
    path = tmp_path / "ports"
    path.write_bytes(b"# tesk-ports 1\n0\teth0\n7\tsfp\xff\n")
    assert tesk.ports(path) == {0: "eth0", 7: "sfp\\xff"}
    path.write_text("# tesk-ports 1\nnonsense\n")
    with pytest.raises(tesk.BadPortMapError, match="2"):
        tesk.ports(str(path))
    with pytest.raises(tesk.NoPortMapError):
        tesk.ports(tmp_path / "none")


def test_details_are_those_of_teskctl(server):
    path, descriptors = f"{folder.name}/details", len(os.listdir("/proc/self/fd"))
    server.board("set", "1", "snr.0=18dB")
    for port in (0, 1, 8, 12, 15):
        shown = json.loads(subprocess.run(
            [BIN / "teskctl", "--json", "module", str(port)], check=True, timeout=PATIENCE,
            capture_output=True, env={**os.environ, "DOLM_RIC_DETAILS": path}).stdout)
        del shown["time"], shown["event"]
        assert without_ages(tesk.details(port, path)) == without_ages(shown)
    with pytest.raises(tesk.NoPortError):
        tesk.details(99, path)
    with pytest.raises(tesk.NoServerError):
        tesk.details(0, path + "-none")
    assert len(os.listdir("/proc/self/fd")) == descriptors


def test_falls_are_judged_as_by_teskctl(server, tmp_path):
    facts = [{"port": 3.0, "time": 1e9, "set_down": True}, {"port": 3.0, "time": 2e9, "rx_after": [-40.0]}]
    (tmp_path / "falls").mkdir()
    recorded = "".join(json.dumps(each) + "\n" for each in facts)
    (tmp_path / "falls/3").write_text(recorded + '{"speed": 1}\n')
    with pytest.warns(UserWarning, match="line 3 .*speed"):
        found = tesk.falls(3, tmp_path / "falls")
    (tmp_path / "facts").write_text(recorded)
    shown = subprocess.run([BIN / "teskctl", "--json", "why", "--facts", tmp_path / "facts"], check=True,
                           timeout=PATIENCE, capture_output=True, text=True).stdout
    assert found == [json.loads(line) for line in shown.splitlines()] and found[1]["cause"] == "set down"
    assert tesk.falls(4, tmp_path / "falls") == []
    with pytest.raises(tesk.NoServerError):
        tesk.falls(3, tmp_path / "none")
    with pytest.raises(tesk.MisuseError, match="rx_after"):
        tesk.judge_fall({"rx_after": 1})
    nested = []
    for _ in range(100_000):
        nested = [nested]
    for facts in {"port": [[[[[[[[[]]]]]]]]]}, {"port": nested}:
        with pytest.raises(tesk.MisuseError):
            tesk.judge_fall(facts)


def without_ages(value):
    if isinstance(value, dict):
        return {key: None if key.endswith("age_s") else without_ages(member)
                for key, member in value.items()}
    return [without_ages(member) for member in value] if isinstance(value, list) else value
