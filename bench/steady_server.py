#!/usr/bin/env python3
"""A slow link on loopback: every connection gets its body at a steady rate, in small chunks on a
fixed schedule, the way a device's modem delivers it (not in bursts like nginx's limit_rate).

GET /SIZE/NAME answers 200 with SIZE bytes of content(SIZE); NAME only gives each download its
own file name. One listening port per link, so that a client keeps one connection per download.

Usage: steady_server.py FIRST_PORT PORTS RATE_BYTES_PER_S CHUNK_BYTES
"""
import asyncio
import random
import sys
import time
from functools import lru_cache


@lru_cache(maxsize=8)
def content(size):
    """The body served for SIZE: the same bytes in every process, for checking files on disk."""
    return random.Random(size).randbytes(size)


async def serve(reader, writer, rate, chunk):
    try:
        while True:
            request = await reader.readuntil(b"\r\n\r\n")
            parts = request.split(b" ", 2)
            try:
                size = int(parts[1].split(b"/")[1])
                body = content(size)
            except (IndexError, ValueError):
                writer.write(b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")
                await writer.drain()
                continue
            writer.write(b"HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                         b"Content-Length: %d\r\n\r\n" % size)
            # Absolute deadlines: a late wake-up does not slow the link down for good.
            start = time.monotonic()
            for offset in range(0, size, chunk):
                delay = start + offset / rate - time.monotonic()
                if delay > 0:
                    await asyncio.sleep(delay)
                writer.write(body[offset:offset + chunk])
                await writer.drain()
    except (asyncio.IncompleteReadError, ConnectionError, asyncio.LimitOverrunError):
        pass
    finally:
        writer.close()


async def main():
    first_port, ports, rate, chunk = (int(a) for a in sys.argv[1:5])
    handler = lambda r, w: serve(r, w, rate, chunk)
    servers = [await asyncio.start_server(handler, "127.0.0.1", first_port + i)
               for i in range(ports)]
    print("ready", flush=True)
    await asyncio.gather(*(s.serve_forever() for s in servers))


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
