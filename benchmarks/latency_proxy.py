#!/usr/bin/env python3
"""A TCP forwarder that puts a fixed delay on the way there and on the way back.

The kernel here has no netem, so the SFTP benchmark (sftp_benchmark.sh) reaches its sshd
through this proxy to give every round trip a known cost: each chunk read from one side is
written to the other DELAY ms after it arrived, in the order it arrived. A round trip thus
costs twice the delay. Nothing else is limited: chunks keep being read while earlier ones
wait, so a stream of data arrives as fast as it left, only later.

  latency_proxy.py --target HOST:PORT --delay-ms MS --port-file FILE
      listens on 127.0.0.1 on a free port, writes the port to FILE once it accepts
  latency_proxy.py --self-test --delay-ms MS
      measures a round trip and the throughput through the proxy to an echo server
"""

import argparse
import asyncio
import os
import statistics
import sys
import time

CHUNK = 256 * 1024


async def pump(reader, writer, delay):
    """Copies reader to writer, each chunk `delay` seconds after it was read, in order."""
    loop = asyncio.get_running_loop()
    queue = asyncio.Queue()

    async def read_side():
        # Reading never waits for the writer: a chunk's delay starts when it arrives, not
        # when the chunk before it has been written.
        try:
            while True:
                data = await reader.read(CHUNK)
                queue.put_nowait((loop.time() + delay, data))
                if not data:
                    return
        except (ConnectionError, OSError):
            queue.put_nowait((loop.time(), None))

    async def write_side():
        while True:
            due, data = await queue.get()
            wait = due - loop.time()
            if wait > 0:
                await asyncio.sleep(wait)
            if data is None:
                writer.transport.abort()
                return
            if not data:
                if writer.can_write_eof():
                    writer.write_eof()
                return
            writer.write(data)
            await writer.drain()

    reading = asyncio.ensure_future(read_side())
    try:
        await write_side()
    finally:
        reading.cancel()


async def serve_connection(client_reader, client_writer, host, port, delay):
    try:
        server_reader, server_writer = await asyncio.open_connection(host, port)
    except OSError:
        client_writer.transport.abort()
        return
    pumps = [
        asyncio.ensure_future(pump(client_reader, server_writer, delay)),
        asyncio.ensure_future(pump(server_reader, client_writer, delay)),
    ]
    # Each direction ends on its own (a half-close is passed on); a failure in one ends both.
    _, pending = await asyncio.wait(pumps, return_when=asyncio.FIRST_EXCEPTION)
    for task in pending:
        task.cancel()
    for task in pumps:
        if not task.cancelled() and task.done():
            task.exception()  # retrieved, so that asyncio does not report it
    for w in (client_writer, server_writer):
        w.close()


async def start_proxy(host, port, delay):
    """Returns the listening server (127.0.0.1, a free port)."""
    return await asyncio.start_server(
        lambda r, w: serve_connection(r, w, host, port, delay), "127.0.0.1", 0)


def write_port_file(path, port):
    # Written aside and renamed, so that the reader never sees a partial number.
    partial = path + ".partial"
    with open(partial, "w", encoding="ascii") as f:
        f.write(f"{port}\n")
    os.rename(partial, path)


async def run_proxy(target, delay, port_file):
    host, _, port = target.rpartition(":")
    server = await start_proxy(host, int(port), delay)
    write_port_file(port_file, server.sockets[0].getsockname()[1])
    async with server:
        await server.serve_forever()


async def echo(reader, writer):
    try:
        while data := await reader.read(CHUNK):
            writer.write(data)
            await writer.drain()
    except (ConnectionError, OSError):
        pass
    writer.close()


async def self_test(delay):
    echo_server = await asyncio.start_server(echo, "127.0.0.1", 0)
    echo_port = echo_server.sockets[0].getsockname()[1]
    proxy = await start_proxy("127.0.0.1", echo_port, delay)
    reader, writer = await asyncio.open_connection(
        "127.0.0.1", proxy.sockets[0].getsockname()[1])
    trips = []
    for _ in range(20):
        started = time.perf_counter()
        writer.write(b"x")
        await reader.readexactly(1)
        trips.append(time.perf_counter() - started)
    size = 64 * 1024 * 1024
    block = b"y" * (1024 * 1024)

    async def send():
        for _ in range(size // len(block)):
            writer.write(block)
            await writer.drain()

    started = time.perf_counter()
    sending = asyncio.ensure_future(send())
    await reader.readexactly(size)
    await sending
    seconds = time.perf_counter() - started
    writer.close()
    await writer.wait_closed()
    # The close has to cross the proxy and the echo server's answer to come back.
    await asyncio.sleep(4 * delay + 0.1)
    print(f"round trip through the proxy: median {statistics.median(trips) * 1000:.1f} ms, "
          f"min {min(trips) * 1000:.1f} ms, max {max(trips) * 1000:.1f} ms (20 trips); "
          f"64 MiB there and back in {seconds:.2f} s "
          f"({size / seconds / 1024 / 1024:.0f} MiB/s each way)")
    proxy.close()
    echo_server.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--delay-ms", type=float, required=True,
                        help="delay in each direction (a round trip costs twice this)")
    parser.add_argument("--target", help="HOST:PORT to forward to")
    parser.add_argument("--port-file", help="where to write the listening port")
    parser.add_argument("--self-test", action="store_true")
    args = parser.parse_args()
    delay = args.delay_ms / 1000
    if args.self_test:
        asyncio.run(self_test(delay))
    elif args.target and args.port_file:
        try:
            asyncio.run(run_proxy(args.target, delay, args.port_file))
        except KeyboardInterrupt:
            pass
    else:
        parser.error("give --target and --port-file, or --self-test")


if __name__ == "__main__":
    sys.exit(main())
