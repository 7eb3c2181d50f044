"""A road between the program and its server that breaks in every way a road can.

A Proxy listens where the program looks for the server, and passes on what comes, both ways. It can
be told to break one party's road when a number of bytes has passed: to the byte, also amid a TLS
record. Bytes are counted from the moment it is told.
"""

import selectors
import socket
import struct
import threading

BLOCK = 1 << 16

UP = "up"  # from the program to the server
DOWN = "down"  # from the server to the program


class Road:
    """One connection of a party: two sockets and what waits to be passed on."""

    def __init__(self, owner, program, server):
        self.owner = owner
        self.ends = {UP: program, DOWN: server}  # who sends in this direction
        self.waiting = {UP: b"", DOWN: b""}
        self.is_read = {UP: True, DOWN: True}
        self.is_passed = True
        self.is_open = True

    def other(self, direction):
        return self.ends[DOWN if direction == UP else UP]


class Proxy:
    """Runs on a thread of its own until it is stopped. Roads belong to the party named last."""

    def __init__(self, address, server_address):
        self.server_address = server_address
        self.owner = None
        self.roads = []
        self.point = None  # owner, direction, bytes that may still pass, what is done then
        self.lock = threading.RLock()
        self.passed = {}  # bytes that passed by (owner, direction)
        self.selector = selectors.DefaultSelector()
        self.listener = socket.create_server(address)
        self.listener.setblocking(False)
        self.wake, self.woken = socket.socketpair()
        self.selector.register(self.listener, selectors.EVENT_READ, None)
        self.selector.register(self.woken, selectors.EVENT_READ, None)
        self.is_running = True
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def stop(self):
        self.is_running = False
        self.wake.send(b"x")
        self.thread.join()
        for road in list(self.roads):
            self.drop(road)
        self.listener.close()

    # ---- What the trial says ----

    def arm(self, owner, direction, count, action):
        """Calls action once that many bytes of the party have passed in this direction, on the
        proxy's thread and with its lock held; not one byte more passes ahead of that."""
        with self.lock:
            self.point = [owner, direction, count, action]
            if count == 0:
                self.fire()

    def disarm(self):
        """Returns whether the point is still ahead, which it is no longer."""
        with self.lock:
            is_ahead = self.point is not None
            self.point = None
            return is_ahead

    def fire(self):
        """Does at once what was to be done at the point, if that is still ahead."""
        with self.lock:
            if self.point:
                action = self.point[3]
                self.point = None
                action()

    def of(self, owner):
        return [road for road in self.roads if road.owner == owner]

    def reset(self, owner):
        """Both ends hear at once that the connection is no more."""
        with self.lock:
            for road in self.of(owner):
                self.drop(road, True)

    def end(self, owner):
        """Both ends read an end of file, and no end of TLS or of the stream."""
        with self.lock:
            for road in self.of(owner):
                self.drop(road)

    def swallow(self, owner):
        """Nothing arrives any more, either way, and nobody is told."""
        with self.lock:
            for road in self.of(owner):
                road.is_passed = False
                road.waiting = {UP: b"", DOWN: b""}
                self.update(road)

    def reset_program(self, owner):
        """The program hears that the connection is no more, and the server hears nothing."""
        self.reset_one(owner, UP)

    def reset_server(self, owner):
        """The server hears that the connection is no more, and the program hears nothing."""
        self.reset_one(owner, DOWN)

    def reset_one(self, owner, direction):
        with self.lock:
            for road in self.of(owner):
                road.is_passed = False
                road.waiting = {UP: b"", DOWN: b""}
                self.close_end(road, direction, True)
                self.update(road)

    def stall(self, owner, directions):
        """What is sent in these directions is not read any more."""
        with self.lock:
            for road in self.of(owner):
                for direction in directions:
                    road.is_read[direction] = False
                self.update(road)

    def resume(self, owner):
        """All is read again."""
        with self.lock:
            for road in self.of(owner):
                road.is_read = {UP: True, DOWN: True}
                self.update(road)
        self.wake.send(b"x")

    # ---- Roads ----

    def accept(self):
        try:
            program, _ = self.listener.accept()
        except OSError:
            return
        try:
            server = socket.create_connection(self.server_address)
        except OSError:
            program.close()
            return
        road = Road(self.owner, program, server)
        for end in (program, server):
            end.setblocking(False)
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.roads.append(road)
        for direction in (UP, DOWN):
            self.selector.register(road.ends[direction], selectors.EVENT_READ, (road, direction))

    def close_end(self, road, direction, is_reset):
        end = road.ends[direction]
        if end is None:
            return
        road.ends[direction] = None
        try:
            self.selector.unregister(end)
        except KeyError:
            pass
        if is_reset:
            end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        end.close()

    def drop(self, road, is_reset=False):
        for direction in (UP, DOWN):
            self.close_end(road, direction, is_reset)
        if road in self.roads:
            self.roads.remove(road)

    def update(self, road):
        """Looks at each end for just what can be done there."""
        for direction, end in road.ends.items():
            if end is None:
                continue
            events = 0
            if road.is_read[direction] and len(road.waiting[direction]) < BLOCK:
                events |= selectors.EVENT_READ
            opposite = DOWN if direction == UP else UP
            if road.waiting[opposite] and road.is_read[opposite]:
                events |= selectors.EVENT_WRITE
            try:
                self.selector.unregister(end)
            except KeyError:
                pass
            if events:
                self.selector.register(end, events, (road, direction))

    # ---- Bytes ----

    def read(self, road, direction):
        end = road.ends[direction]
        try:
            data = end.recv(BLOCK)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if not data:
            self.lose_end(road, direction)
            return
        if not road.is_passed:
            return
        point = self.point
        if point and point[:2] == [road.owner, direction]:
            if len(data) < point[2]:
                point[2] -= len(data)
            else:
                self.pass_on(road, direction, data[: point[2]])
                rest = data[point[2] :]
                self.fire()
                # What is not cut off for good waits.
                if road in self.roads and road.is_passed:
                    road.waiting[direction] += rest
                    self.update(road)
                return
        self.pass_on(road, direction, data)

    def lose_end(self, road, direction):
        """One end has gone: so does the other, unless it is to hear nothing."""
        if road.is_passed:
            self.write(road, direction)
            self.drop(road)
            return
        self.close_end(road, direction, False)
        if road.ends == {UP: None, DOWN: None} and road in self.roads:
            self.roads.remove(road)

    def pass_on(self, road, direction, data):
        key = (road.owner, direction)
        self.passed[key] = self.passed.get(key, 0) + len(data)
        road.waiting[direction] += data
        self.write(road, direction)
        self.update(road)

    def write(self, road, direction):
        """Passes on what waits, unless this direction is stalled."""
        end = road.other(direction)
        if end is None or not road.waiting[direction] or not road.is_read[direction]:
            return
        try:
            size = end.send(road.waiting[direction])
        except BlockingIOError:
            return
        except OSError:
            road.waiting[direction] = b""
            return
        road.waiting[direction] = road.waiting[direction][size:]

    def run(self):
        while self.is_running:
            for key, events in self.selector.select():
                with self.lock:
                    self.handle(key, events)

    def handle(self, key, events):
        if key.fileobj is self.listener:
            self.accept()
            return
        if key.fileobj is self.woken:
            self.woken.recv(64)
            return
        road, direction = key.data
        # An action at a point may have closed this end meanwhile.
        if road.ends[direction] is not key.fileobj:
            return
        if events & selectors.EVENT_WRITE:
            self.write(road, DOWN if direction == UP else UP)
            self.update(road)
        if events & selectors.EVENT_READ and road.ends[direction] is key.fileobj:
            self.read(road, direction)
