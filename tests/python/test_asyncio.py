# SPDX-License-Identifier: Apache-2.0
"""The session for asyncio, against the real server."""
import asyncio
import os
import signal

import pytest

import tesk_client as tesk
from conftest import await_descriptors

PATIENCE = 20


async def next_of(watch):
    return await asyncio.wait_for(anext(watch), PATIENCE)


def run(work, **options):
    async def main():
        async with tesk.AsyncSession(**{"deadline_s": PATIENCE, **options}) as session:
            await work(session)

    asyncio.run(main(), debug=True)


def test_requests_go_on_beside_a_watch(server):
    async def work(session):
        seen = []
        async for change in session.watch(status=[0, 1], sfp=[0]):
            seen.append(change)
            if len(seen) == 3:
                assert [pm.port for pm in await asyncio.gather(*map(session.pm, range(8)))] == \
                    list(range(8))
                server.board("link", "1", "down")
            elif len(seen) > 3:
                break
        assert (change.port, change.link) == (1, tesk.Link.NOT_OPERATIONAL)
        await asyncio.to_thread(server.await_unsubscribed, "0-1")
        with pytest.raises(tesk.RejectedError, match="no device"):
            await session.pm(4000)
        failed = session.watch(status=[0, 4000])
        with pytest.raises(tesk.RejectedError, match="invalid port"):
            await next_of(failed)
        async with session.watch(status=[2]) as left:
            await next_of(left)
        await asyncio.to_thread(server.await_unsubscribed, "0-2")
        assert (await session.history())[0].port in (0, 1)
        assert len(await session.capabilities()) > 0

    run(work)


def test_cancelling_loses_nothing_and_leaves_nothing(server):
    async def work(session):
        watch = session.watch(status=[0])
        await next_of(watch)
        server.signal(signal.SIGSTOP)
        for call in (session.pm(0), session.history(), anext(watch), anext(session.watch(sfp=[1]))):
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(call, 0.01)
        server.signal(signal.SIGCONT)
        server.board("link", "0", "down")
        assert (await next_of(watch)).link == tesk.Link.NOT_OPERATIONAL
        await asyncio.to_thread(server.board, "wait", "1", "--unsubscribed", "port")
        assert (await next_of(session.watch(sfp=[1]))).port == 1

    run(work)


def test_closing_ends_what_waits(server):
    async def work(session):
        held, left = session.watch(status=[0]), session.watch(status=[2])
        await asyncio.gather(next_of(held), next_of(left))
        server.signal(signal.SIGSTOP)
        tasks = asyncio.gather(session.pm(0), anext(held), anext(left, None),
                               return_exceptions=True)
        await asyncio.sleep(0)
        left.close()
        session.close()
        assert [type(result) for result in await tasks] == [tesk.ClosedError] * 2 + [type(None)]

    run(work)


@pytest.mark.parametrize("reconnect", [True, False])
def test_the_server_s_loss_and_return_are_changes(server, reconnect):
    async def work(session):
        async with session.watch(status=[0]) as watch:
            await next_of(watch)
            waits = asyncio.ensure_future(next_of(watch))
            await asyncio.to_thread(server.kill)
            assert await waits == tesk.ServerLost()
            if not reconnect:
                for call in (next_of(watch), session.pm(0)):
                    with pytest.raises(tesk.LostError):
                        await call
                assert not session._core._requests
                with pytest.raises(tesk.NoServerError, match="no process has"):
                    tesk.Session()
                return
            waits = asyncio.ensure_future(session.pm(0))
            await asyncio.to_thread(server.start)
            assert (await next_of(watch), (await next_of(watch)).port) == (tesk.ServerRestored(), 0)
            assert (await waits).port == 0

    run(work, retry_s=0.01, reconnect=reconnect)


def test_a_forgotten_session_leaves_the_loop_usable(server):
    async def main():
        before = len(os.listdir("/proc/self/fd"))
        for _ in range(3):
            with pytest.warns(ResourceWarning, match="not closed"):
                await (session := tesk.AsyncSession()).pm(0)
                del session
        await_descriptors(before)
        late = tesk.AsyncSession()
        await next_of(late.watch(sfp=[0]))
        return late

    late = asyncio.run(main())
    with pytest.raises(tesk.MisuseError, match="another event loop"):
        asyncio.run(late.pm(0))
    late.close()  # after its loop was closed
