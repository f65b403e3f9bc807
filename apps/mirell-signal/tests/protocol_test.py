#!/usr/bin/python3
"""The signal server's protocol, checked by a WebSocket client nobody here wrote (Python's
websockets), against the real mirell-signal process with small limits.

Usage: protocol_test.py PATH/TO/mirell-signal
Prints one line per case and "N passed, M failed"; exits 1 if any case failed."""

import asyncio
import http.client
import json
import re
import subprocess
import sys
import threading
import time

import websockets

GRACE_SECONDS = 2
IDLE_SECONDS = 2
LIMITS = [
    "--grace-seconds", str(GRACE_SECONDS),
    "--idle-seconds", str(IDLE_SECONDS),
    "--max-viewers-per-token", "3",
    "--max-tokens-per-connection", "2",
    "--max-message-bytes", "4096",
    "--messages-per-second", "5",
    "--max-connections", "40",
]


class Server:
    def __init__(self, binary):
        self.process = subprocess.Popen(
            [binary, "--listen", "127.0.0.1:0", "--latest-version", "0.9.1",
             "--latest-url", "https://mirell.example/get"] + LIMITS,
            stderr=subprocess.PIPE, text=True, env={"MIRELL_LOG": "info"})
        line = self.process.stderr.readline()
        match = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
        if not match:
            raise RuntimeError("mirell-signal did not start: " + line)
        self.port = int(match.group(1))
        self.url = "ws://127.0.0.1:%d/signal" % self.port
        # The rest of its log is read, so that a full pipe never stops the server.
        self.log = []
        threading.Thread(target=lambda: self.log.extend(self.process.stderr), daemon=True).start()

    def stop(self):
        self.process.terminate()
        code = self.process.wait(timeout=10)
        if code != 0:
            raise RuntimeError("mirell-signal ended with %d" % code)


async def receive(ws, timeout=5):
    return json.loads(await asyncio.wait_for(ws.recv(), timeout))


async def closed(ws, timeout=5):
    """True once the server has ended the connection; the frames before the end are dropped."""
    try:
        while True:
            await asyncio.wait_for(ws.recv(), timeout)
    except websockets.ConnectionClosed:
        return True
    except asyncio.TimeoutError:
        return False


async def host(server, token, secret="S3CRET", media=None):
    ws = await websockets.connect(server.url)
    message = {"type": "host", "token": token, "secret": secret}
    if media is not None:
        message["media"] = media
    await ws.send(json.dumps(message))
    return ws


async def join(server, token, identity=None, name=None):
    ws = await websockets.connect(server.url)
    message = {"type": "join", "token": token}
    if identity:
        message["identity"] = identity
    if name:
        message["displayName"] = name
    await ws.send(json.dumps(message))
    return ws


def check(condition, what):
    if not condition:
        raise AssertionError(what)


async def whole_exchange(server):
    h = await host(server, "EXCHANGE1", media={"width": 1280, "height": 720, "audioConfig": "1190"})
    check(await receive(h) == {"type": "hosting"}, "hosting")
    v = await join(server, "EXCHANGE1", "usr_1", "Alice")
    joined = await receive(v)
    check(joined == {"type": "joined", "media": {"width": 1280, "height": 720, "audioConfig": "1190"}},
          "joined with media: %r" % joined)
    peer = await receive(h)
    check(peer["type"] == "peer" and peer["identity"] == "usr_1" and peer["displayName"] == "Alice",
          "peer: %r" % peer)
    await h.send(json.dumps({"type": "offer", "peer": peer["peer"], "sdp": "v=0 offer"}))
    check(await receive(v) == {"type": "offer", "sdp": "v=0 offer"}, "offer relayed")
    await v.send(json.dumps({"type": "answer", "sdp": "v=0 answer"}))
    check(await receive(h) == {"type": "answer", "peer": peer["peer"], "sdp": "v=0 answer"},
          "answer stamped with the peer")
    await v.close()
    check(await receive(h) == {"type": "peer-gone", "peer": peer["peer"]}, "peer-gone")
    await h.close()


async def deny(server):
    h = await host(server, "DENY1")
    await receive(h)
    v = await join(server, "DENY1")
    await receive(v)
    peer = await receive(h)
    check("identity" not in peer, "no identity for an anonymous viewer")
    await h.send(json.dumps({"type": "deny", "peer": peer["peer"]}))
    error = await receive(v)
    check(error["type"] == "error", "the denied viewer gets an error: %r" % error)
    check(await closed(v), "the denied viewer's socket is closed")
    await h.close()


async def reconnecting_host_takes_over(server):
    old = await host(server, "RECON1")
    await receive(old)
    v = await join(server, "RECON1", "usr_2")
    await receive(v)
    first = await receive(old)
    new = await host(server, "RECON1")
    check(await receive(new) == {"type": "hosting"}, "the same secret takes the token over")
    again = await receive(new)
    check(again["type"] == "peer" and again["peer"] == first["peer"], "waiting viewer re-announced")
    check(await closed(old), "the old host socket is closed")
    await new.send(json.dumps({"type": "offer", "peer": first["peer"], "sdp": "x"}))
    check((await receive(v))["type"] == "offer", "the new host reaches the viewer")
    await new.close()
    await v.close()


async def wrong_secret(server):
    owner = await host(server, "SECRET1", "right")
    await receive(owner)
    thief = await host(server, "SECRET1", "wrong")
    error = await receive(thief)
    check(error == {"type": "error", "reason": "token taken"}, "refused: %r" % error)
    check(await closed(thief), "and closed")
    await owner.send(json.dumps({"type": "ping"}))
    check(owner.open, "the owner keeps the token")
    await owner.close()


async def host_away_keeps_its_token(server):
    owner = await host(server, "KEPT1", "right")
    await receive(owner)
    await owner.close()
    await asyncio.sleep(GRACE_SECONDS + 1)  # Beyond the viewers' grace: the token is still held.
    thief = await host(server, "KEPT1", "wrong")
    check(await receive(thief) == {"type": "error", "reason": "token taken"}, "a stranger is refused")
    back = await host(server, "KEPT1", "right")
    check(await receive(back) == {"type": "hosting"}, "the host gets its token back")
    await back.close()


async def end_lets_the_token_go(server):
    h = await host(server, "ENDED1", "right")
    await receive(h)
    v = await join(server, "ENDED1")
    await receive(v)
    await receive(h)
    await h.send(json.dumps({"type": "end", "token": "ENDED1"}))
    check(await receive(v) == {"type": "error", "reason": "the share has ended"}, "the viewer is told")
    check(await closed(v), "and closed")
    check(await closed(h), "the host's connection is closed once its share has ended")
    other = await host(server, "ENDED1", "other")
    check(await receive(other) == {"type": "hosting"}, "the token is free again")
    await other.close()


async def grace_expiry(server):
    v = await join(server, "GRACE1")
    started = time.monotonic()
    error = await receive(v, timeout=GRACE_SECONDS + 3)
    check(error == {"type": "error", "reason": "the host is not there"}, "refused: %r" % error)
    check(time.monotonic() - started >= GRACE_SECONDS - 0.3, "not before the grace ran out")
    check(await closed(v), "and closed")


async def host_back_within_grace(server):
    h = await host(server, "GRACE2")
    await receive(h)
    v = await join(server, "GRACE2")
    await receive(v)
    await receive(h)
    await h.close()
    await asyncio.sleep(GRACE_SECONDS / 2)
    h2 = await host(server, "GRACE2")
    check(await receive(h2) == {"type": "hosting"}, "hosting again")
    check((await receive(h2))["type"] == "peer", "the viewer is still there")
    check(v.open, "the viewer waited")
    await h2.close()
    await v.close()


async def message_size_limit(server):
    v = await join(server, "SIZE1")
    await v.send(json.dumps({"type": "answer", "sdp": "x" * 5000}))
    check(await closed(v), "a 5 kB message ends the connection")
    check(v.close_code == 1009, "close code 1009 (too big), not %r" % v.close_code)


async def rate_limit(server):
    v = await join(server, "RATE1")
    for _ in range(40):
        try:
            await v.send(json.dumps({"type": "answer", "sdp": "x"}))
        except websockets.ConnectionClosed:
            break
    error = await receive(v)
    check(error == {"type": "error", "reason": "too many messages"}, "refused: %r" % error)
    check(await closed(v), "and closed")


async def viewers_per_token_limit(server):
    h = await host(server, "MANY1")
    await receive(h)
    viewers = [await join(server, "MANY1") for _ in range(3)]
    for v in viewers:
        await receive(v)
    fourth = await join(server, "MANY1")
    check(await receive(fourth) == {"type": "error", "reason": "too many viewers"}, "fourth refused")
    check(await closed(fourth), "and closed")
    for v in viewers + [h]:
        await v.close()


async def tokens_per_connection_limit(server):
    ws = await websockets.connect(server.url)
    for token in ("TOK1", "TOK2", "TOK3"):
        await ws.send(json.dumps({"type": "host", "token": token, "secret": "s"}))
    check(await receive(ws) == {"type": "hosting"}, "first")
    check(await receive(ws) == {"type": "hosting"}, "second")
    check(await receive(ws) == {"type": "error", "reason": "too many tokens on one connection"}, "third")
    check(await closed(ws), "and closed")


async def idle_unregistered(server):
    ws = await websockets.connect(server.url)
    started = time.monotonic()
    error = await receive(ws, timeout=IDLE_SECONDS + 3)
    check(error == {"type": "error", "reason": "no registration"}, "refused: %r" % error)
    check(await closed(ws), "and closed")
    check(time.monotonic() - started < IDLE_SECONDS + 2, "within the idle limit")


async def malformed_json(server):
    for text in ("{not json", "[1,2]", '{"type":7}', '{"type":"join","token":[1]}'):
        ws = await websockets.connect(server.url)
        await ws.send(text)
        check(await receive(ws) == {"type": "error", "reason": "malformed message"}, text)
        check(await closed(ws), "closed after " + text)


async def total_connections_limit(server):
    held = []
    refused = 0
    for _ in range(45):
        try:
            held.append(await websockets.connect(server.url, open_timeout=2))
        except (websockets.InvalidHandshake, OSError, asyncio.TimeoutError, websockets.ConnectionClosed):
            refused += 1
    check(len(held) <= 40, "at most 40 open, got %d" % len(held))
    check(refused >= 5, "the rest refused (%d)" % refused)
    for ws in held:
        await ws.close()


def http_answers(server):
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=5)
    connection.request("GET", "/s/ABCDEFGHJKMN")
    page = connection.getresponse()
    body = page.read().decode()
    check(page.status == 200, "page status %d" % page.status)
    check(page.getheader("Content-Type") == "text/html; charset=utf-8", "page type")
    check("VRChat" in body and "ABCDEFGHJKMN" not in body, "page text")
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=5)
    connection.request("GET", "/s/ZZZZZZZZZZZZ")
    check(connection.getresponse().read().decode() == body, "same page for any token")
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=5)
    connection.request("GET", "/latest")
    latest = connection.getresponse()
    check(latest.status == 200 and json.loads(latest.read()) ==
          {"version": "0.9.1", "url": "https://mirell.example/get"}, "latest")


CASES = [whole_exchange, deny, reconnecting_host_takes_over, wrong_secret, host_away_keeps_its_token,
         end_lets_the_token_go, grace_expiry,
         host_back_within_grace, message_size_limit, rate_limit, viewers_per_token_limit,
         tokens_per_connection_limit, idle_unregistered, malformed_json, total_connections_limit,
         http_answers]


def main():
    server = Server(sys.argv[1])
    passed = failed = 0
    try:
        for case in CASES:
            try:
                if asyncio.iscoroutinefunction(case):
                    asyncio.run(asyncio.wait_for(case(server), 30))
                else:
                    case(server)
                print("ok   %s" % case.__name__)
                passed += 1
            except Exception as error:  # Every failure is reported, then the next case runs.
                print("FAIL %s: %s: %s" % (case.__name__, type(error).__name__, error))
                failed += 1
    finally:
        server.stop()
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
