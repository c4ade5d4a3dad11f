# SPDX-License-Identifier: Apache-2.0
"""A client in Python that is measured: python_client.py tesk | asyncio | redis ADDRESS

Carries out the lines "calls KIND COUNT" of stdin as the other clients do, see harness.h, and prints
the nanoseconds of each call."""
import asyncio
import sys
import time


def requests():
    """Yields, for each line of stdin, the kind of the calls and a range as long as their number."""
    for line in sys.stdin:
        _, kind, count = line.split()
        yield int(kind), range(int(count))


def print_times(marks):
    print([after - before for before, after in zip(marks, marks[1:])], flush=True)


def serve_calls(calls):
    """Makes one call after the other and reads the clock between them."""
    now = time.monotonic_ns
    for kind, times in requests():
        call = calls[kind]
        marks = [now()]
        for _ in times:
            call()
            marks.append(now())
        print_times(marks)


def tesk():
    import tesk_client
    with tesk_client.Session() as session:
        serve_calls([session.capabilities, lambda: session.pm(0)])


async def tesk_asyncio():
    import tesk_client
    now = time.monotonic_ns
    async with tesk_client.AsyncSession() as session:
        calls = [session.capabilities, lambda: session.pm(0)]
        for kind, times in requests():
            call = calls[kind]
            marks = [now()]
            for _ in times:
                await call()
                marks.append(now())
            print_times(marks)


def redis(address):
    import redis as redis_py
    client = redis_py.Redis(unix_socket_path=address)
    serve_calls([lambda: client.get("0"), lambda: client.get("1")])


if sys.argv[1] == "redis":
    redis(sys.argv[2])
elif sys.argv[1] == "asyncio":
    asyncio.run(tesk_asyncio())
else:
    tesk()
