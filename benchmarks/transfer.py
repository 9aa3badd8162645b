"""Files on their way to the radio: over TCP, on a paced line, and to the simulator."""

import filecmp
import os
import socket
import subprocess
import threading
import time

import rows
import systems
from results import Results, alternate, random_file
from systems import BINARIES, Kova, Stack, Unable, peer, peer_env

LINE_BYTES_PER_SECOND = 150_000
TURN_US = 250
MODEMS = (('xmodem-1k', ['sx', '-b', '-q', '-k'], ['rx', '-b', '-q', '-c', 'image']),
          ('zmodem', ['sz', '-b', '-q', '-8'], ['rz', '-b', '-y', '-q']))


def bare_transfer(stack, kind, where, chunk, image):
    """Runs the bare stop-and-wait to its end; what it says."""
    program = stack.run(BINARIES / 'bench_stopwait', kind, where, chunk, image)
    said = program.read()
    stack.dismiss([program])
    return said


def stored_rate(stack, image):
    stored = stack.radio.ask('stored')
    if not stored['complete'] or not filecmp.cmp(image, stack.store, shallow=False):
        raise RuntimeError('what the radio stored is not what was sent')
    return stored['bytes'] / stored['seconds']


def both_ways(found, number, measure, kova, bare, image, transfer_bare):
    """The same file through Kova and without it."""
    def through_kova():
        with found.part('kova', measure):
            if not kova.service.ask('firmware', image, 'fw')['ok']:
                raise RuntimeError('the transfer failed')
            found.put('kova', measure, stored_rate(kova, image))

    def without():
        with found.part('bare', measure):
            transfer_bare()
            found.put('bare', measure, stored_rate(bare, image))

    for take in alternate([through_kova, without], number):
        take()


class BareRadio(Stack):
    """A radio of its own for the bare stop-and-wait."""

    def start(self):
        self.start_radio('link', self.folder / 'port')


def firmware(options, number, wanted):
    found = Results()
    with Kova(options.measured) as kova, BareRadio(options.measured) as bare:
        for chunk in rows.CHUNKS:
            if wanted(f'tcp_{chunk}'):
                image = random_file(kova.folder / 'image', chunk * options.chunks)
                kova.set_chunk(chunk)
                both_ways(found, number, f'tcp_{chunk}', kova, bare, image,
                          lambda: bare_transfer(bare, 'tcp', bare.port(), chunk, image))
        if wanted('tcp_4096'):
            with found.part('tftp-1468', 'tcp'):
                found.put('tftp-1468', 'tcp', tftp_rate(bare))
    return found


def tftp_rate(stack, size=1 << 26):
    """What one transfer takes, less what one of a single byte takes, so without the start."""
    folder = stack.folder / 'tftp'
    folder.mkdir()
    port = systems.free_port()
    server = stack.run(peer('usr/sbin/in.tftpd'), '-L', '-u', 'root', '-a', f'127.0.0.1:{port}',
                       '-c', '-s', folder, env=peer_env())
    image = random_file(folder / 'image', size)
    one = random_file(folder / 'one', 1)

    def put(file):
        start = time.monotonic()
        done = subprocess.run(
            [peer('usr/bin/atftp'), '--option', 'blksize 1468', '-p', '-l', str(file), '-r',
             f'{file.name}.stored', '127.0.0.1', str(port)], env={**os.environ, **peer_env()},
            preexec_fn=stack.place.enter, capture_output=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f'atftp: {done.stderr.decode()}')
        return time.monotonic() - start

    end = time.monotonic() + 5
    while True:  # the server has no other way to say that it listens
        try:
            put(one)
            break
        except RuntimeError:
            if time.monotonic() > end:
                raise
    seconds = put(image) - min(put(one) for _ in range(3))
    if not filecmp.cmp(image, folder / 'image.stored', shallow=False):
        raise RuntimeError('TFTP stored something else')
    stack.dismiss([server])
    return size / seconds


class Line(Stack):
    """A paced line; with a radio at its end for the bare stop-and-wait."""

    def __init__(self, place, line_place, radio=False):
        super().__init__(place)
        self.line_place = line_place
        self.with_radio = radio
        self.camera = self.folder / 'camera'
        self.far = self.folder / 'far'

    def start(self):
        self.pacer = self.run(BINARIES / 'bench_line', self.camera, self.far,
                              LINE_BYTES_PER_SECOND, TURN_US, place=self.line_place)
        self.pacer.read()
        if self.with_radio:
            self.start_radio('serial', self.far)


def line(options, number, wanted):
    if subprocess.run(['unshare', '--mount', 'true'], capture_output=True,
                      check=False).returncode != 0:
        raise Unable('needs the right to make a mount namespace: Kova opens /dev/ttyS2')
    found = Results()
    with Line(options.measured, options.line) as wire, \
            Kova(options.measured, line=(wire.camera, wire.far)) as kova, \
            Line(options.measured, options.line, radio=True) as bare:
        image = random_file(kova.folder / 'image', options.line_bytes)
        for chunk in rows.LINE_CHUNKS:
            if wanted(f'line_{chunk}'):
                kova.set_chunk(chunk)
                both_ways(found, number, f'line_{chunk}', kova, bare, image,
                          lambda: bare_transfer(bare, 'serial', bare.camera, chunk, image))
        if wanted('line_'):
            for name, send, take in MODEMS:
                with found.part(name, 'line'):
                    found.put(name, 'line', modem_rate(options, send, take, image))
            reports = [stack.pacer.ask('carried') for stack in (wire, bare)]
            late, carrying = (sum(report[f'to_{end}_{what}'] for report in reports
                                  for end in ('radio', 'camera')) for what in ('late', 'carrying'))
            found.put('kova', 'line_exact', late / max(carrying, 1e-9) * 100)
        for chunk in rows.COMMAND_CHUNKS if number == 0 else []:
            if wanted(f'command_{chunk}'):
                with found.part('kova', f'command_{chunk}'):
                    found.put('kova', f'command_{chunk}', command_time(kova, chunk))
    return found


def modem_rate(options, send, take, image):
    """From the first byte on the line to the last, so without the programs' start and end."""
    with Line(options.measured, options.line) as wire, \
            socket.socket(socket.AF_UNIX) as far:
        stored = wire.folder / 'stored'
        stored.mkdir()
        far.connect(str(wire.far))
        receiver = subprocess.Popen(
            [peer(f'usr/bin/{take[0]}'), *take[1:]], stdin=far, stdout=far, cwd=stored,
            stderr=subprocess.DEVNULL, preexec_fn=wire.place.enter)
        terminal = os.open(wire.camera, os.O_RDWR | os.O_NOCTTY)
        try:
            subprocess.run([peer(f'usr/bin/{send[0]}'), *send[1:], str(image)], stdin=terminal,
                           stdout=terminal, stderr=subprocess.DEVNULL, timeout=60, check=True,
                           preexec_fn=wire.place.enter)
            report = wire.pacer.ask('carried')
        finally:
            os.close(terminal)
            receiver.kill()  # it may wait for a last word that its peer no longer sends
            receiver.wait()
        # XMODEM fills the last block up.
        if not next(stored.iterdir()).read_bytes().startswith(image.read_bytes()):
            raise RuntimeError(f'{take[0]} stored something else')
        return image.stat().st_size / report['to_radio_span']


def command_time(kova, chunk):
    """A message there and back, again and again, while a transfer is under way."""
    kova.set_chunk(chunk)
    image = random_file(kova.folder / 'command-image', 196_608)  # 1.3 s
    push = subprocess.Popen([BINARIES / 'zeltcli', 'firmware', 'push', image, '--as', 'fw'],
                            env={**os.environ, **kova.env}, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    try:
        time.sleep(0.3)
        run = kova.service.ask('roundtrip', 32, 1, 0.7, 0)
    finally:
        push.wait(60)
    return run['p50'] / 1000


def simulator(options, number, wanted):
    """radiosim, with the bare stop-and-wait in the camera's place."""
    del number, wanted
    found = Results()
    with Stack(options.measured) as stack:
        port = stack.folder / 'port'
        terminal = stack.folder / 'tty'
        tcp = stack.run(BINARIES / 'radiosim', '--listen', '127.0.0.1:0', '--port-file', port,
                        name='radiosim-tcp')
        paced = stack.run(BINARIES / 'radiosim', '--pty', terminal, '--bps', '1500000',
                          name='radiosim-paced')
        for program, file in ((tcp, port), (paced, terminal)):
            systems.wait_for(file.exists, 'radiosim')
            # It prints its events, and would wait for a reader.
            threading.Thread(target=program.process.stdout.read, daemon=True).start()
        image = random_file(stack.folder / 'image', 4096 * options.simulator_chunks)
        before = tcp.cpu_seconds()
        said = bare_transfer(stack, 'tcp', int(port.read_text()), 4096, image)
        found.put('kova', 'chunk', (tcp.cpu_seconds() - before) / said['chunks'] * 1e6)
        image = random_file(stack.folder / 'image', options.line_bytes)
        said = bare_transfer(stack, 'serial', terminal, 4096, image)
        ideal = (said['sent'] + said['received']) / LINE_BYTES_PER_SECOND
        found.put('kova', 'deviation', abs(said['seconds'] / ideal - 1) * 100)
    return found
