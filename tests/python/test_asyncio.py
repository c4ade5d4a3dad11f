# SPDX-License-Identifier: Apache-2.0
"""The session for asyncio, against the real server."""
import asyncio
import gc
import os
import signal

import pytest

import tesk_client as tesk

PATIENCE = 20


async def next_of(watch):
    return await asyncio.wait_for(anext(watch), PATIENCE)


def run(work, **options):
    async def main():
        async with tesk.AsyncSession(**options) as session:
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
        with pytest.raises(tesk.RejectedError, match="invalid port"):
            await next_of(session.watch(status=[0, 4000]))
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
        assert len(session._core._requests) <= 2  # the subscribe, and nobody's else
        server.signal(signal.SIGCONT)
        server.board("link", "0", "down")
        assert (await next_of(watch)).link == tesk.Link.NOT_OPERATIONAL
        await asyncio.to_thread(server.board, "wait", "1", "--unsubscribed", "port")
        assert (await next_of(session.watch(sfp=[1]))).port == 1

    run(work, deadline_s=PATIENCE)


def test_closing_ends_what_waits(server):
    async def work(session):
        server.signal(signal.SIGSTOP)
        tasks = [asyncio.ensure_future(call) for call in
                 (session.pm(0), anext(session.watch(status=[0])))]
        left = session.watch(status=[2])
        tasks.append(asyncio.ensure_future(anext(left, None)))
        await asyncio.sleep(0)
        left.close()
        session.close()
        results = await asyncio.gather(*tasks, return_exceptions=True)
        assert [type(result) for result in results] == [tesk.ClosedError] * 2 + [type(None)]
        with pytest.raises(tesk.ClosedError):
            await session.pm(0)

    run(work, deadline_s=PATIENCE)


def test_the_server_s_loss_and_return_are_changes(server):
    async def work(session):
        async with session.watch(status=[0]) as watch:
            await next_of(watch)
            server.kill()
            assert await next_of(watch) == tesk.ServerLost()
            waits = asyncio.ensure_future(session.pm(0))
            await asyncio.to_thread(server.start)
            assert (await next_of(watch), (await next_of(watch)).port) == (tesk.ServerRestored(), 0)
            assert (await waits).port == 0

    run(work, deadline_s=PATIENCE, retry_s=0.01)


def test_a_lost_server_ends_a_session_that_does_not_look_for_it(server):
    async def work(session):
        watch = session.watch(status=[0])
        await next_of(watch)
        waits = asyncio.ensure_future(next_of(watch))
        server.kill()
        assert await waits == tesk.ServerLost()
        for call in (next_of(watch), session.pm(0)):
            with pytest.raises(tesk.LostError):
                await call

    run(work, reconnect=False)


def test_a_forgotten_session_leaves_the_loop_usable(server):
    async def main():
        gc.disable()
        before = len(os.listdir("/proc/self/fd"))
        for _ in range(3):
            with pytest.warns(ResourceWarning, match="not closed"):
                session = tesk.AsyncSession()
                await session.pm(0)
                del session
        assert len(os.listdir("/proc/self/fd")) == before
        late = tesk.AsyncSession()
        await next_of(late.watch(sfp=[0]))
        gc.enable()
        return late

    late = asyncio.run(main())

    async def elsewhere():
        with pytest.raises(tesk.MisuseError, match="another event loop"):
            await late.pm(0)

    asyncio.run(elsewhere())
    late.close()  # after its loop
